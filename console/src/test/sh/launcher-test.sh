#!/bin/sh
# The launcher and the jar as a user runs them, as far as they go without the native library.
# usage: launcher-test.sh LAUNCHER
launcher=$1
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
failures=0
unset MENDLINE_LIBRARY

# expect WHAT CODE OUT-PATTERN ERR-PATTERN ARGUMENT...; an empty pattern means an empty stream
expect() {
    # shellcheck disable=SC2034 # out and err are read by name, below
    what=$1 code=$2 out=$3 err=$4
    shift 4
    "$launcher" "$@" >"$work/out" 2>"$work/err" </dev/null
    got=$?
    if [ "$got" -ne "$code" ]; then
        echo "FAILED: $what: exit code $got instead of $code"
        failures=$((failures + 1))
    fi
    for stream in out err; do
        eval "pattern=\$$stream"
        if [ -z "$pattern" ]; then
            [ ! -s "$work/$stream" ] && continue
        else
            grep -q -- "$pattern" "$work/$stream" && continue
        fi
        echo "FAILED: $what: standard $stream does not match '$pattern':"
        cat "$work/$stream"
        failures=$((failures + 1))
    done
}

clear='<MendlineOperation><opcode>ClearShm</opcode></MendlineOperation>'

expect 'help' 0 '^Exit codes:' '' --help
expect 'version' 0 '^mendline [0-9]' '' --version
expect 'unknown command' 2 '' 'unknown command' nonsense
expect 'missing library by option' 3 '' "load the library $work/none.so" --library "$work/none.so" loglevel
expect 'guard before loading' 4 '' 'session table' --library "$work/none.so" request "$clear"
expect 'shell at its end' 0 '' '' shell

MENDLINE_LIBRARY=$work/other.so
export MENDLINE_LIBRARY
expect 'missing library by environment' 3 '' "load the library $work/other.so" loglevel
expect 'the option wins' 3 '' "load the library $work/none.so" --library "$work/none.so" loglevel

: >"$work/empty.so"
expect 'no library at all' 3 '' 'cannot load the library' --library "$work/empty.so" loglevel

# What a JVM says about its options would land in the caller's output if the launcher let it.
JAVA_TOOL_OPTIONS=-Dx=y JDK_JAVA_OPTIONS=-Dx=z
export JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS
expect 'options in the environment' 0 '^mendline [0-9]' '' --version
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS

# The client learns whether the caller's locale has more than ASCII, whatever Java is then told. The
# stand-in for Java prints to what is exchanged again for the caller's standard output.
mkdir -p "$work/jdk/bin"
# shellcheck disable=SC2016 # the stand-in expands them
printf '#!/bin/sh\necho "$LC_ALL" "$@" >&2\n' >"$work/jdk/bin/java"
chmod +x "$work/jdk/bin/java"
JAVA_HOME_BEFORE=${JAVA_HOME-}
JAVA_HOME=$work/jdk LC_ALL=C
export JAVA_HOME LC_ALL
expect 'ASCII in the C locale' 0 '^C.UTF-8 .*-Dmendline.ascii=true ' '' load
LC_ALL=C.UTF-8
expect 'blocks in a UTF-8 locale' 0 '^C.UTF-8 .*-Dmendline.ascii=false ' '' load
JAVA_HOME=$JAVA_HOME_BEFORE

# Arguments outside ASCII must survive a locale that has nothing else.
LC_ALL=C
export LC_ALL
expect 'arguments in the C locale' 2 '' 'unknown command or option: é$' é

[ "$failures" -eq 0 ] || exit 1
echo 'all passed'
