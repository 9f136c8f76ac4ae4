# Compiler and linker flags, as interface targets that product and tests link what they need of.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

add_library(mendline_warnings INTERFACE)
target_compile_options(mendline_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wcast-align
  -Wcast-qual -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual
  -Wdouble-promotion -Wundef)
# gcc 12 warns of overlaps inside its own std::string (GCC bug 105651).
target_compile_options(mendline_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

# What product and tools are held to beyond that; GoogleTest's macros would not pass.
# Left out: -Wnull-dereference and -fanalyzer, which in gcc 12 complain of paths inside Boost and the
# standard library that do not exist; the paths are clang-analyzer's in scripts/test lint.
add_library(mendline_strict_warnings INTERFACE)
target_link_libraries(mendline_strict_warnings INTERFACE mendline_warnings)
target_compile_options(mendline_strict_warnings INTERFACE
  -Wfloat-equal -Wswitch-enum -Wunused-macros -Wredundant-decls -Wextra-semi -Wformat-signedness
  -Wvla -Walloca -Wzero-as-null-pointer-constant)
target_compile_options(mendline_strict_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:
  -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Warith-conversion -Wsuggest-override
  -Wformat-overflow=2 -Wformat-truncation=2 -Wcomma-subscript -Wvolatile -Wdeprecated-copy-dtor
  -Wunused-const-variable=2>)

# Not under the sanitizers: what they add makes gcc warn of paths that the code does not have, inside
# the standard library for one.
if(MENDLINE_WARNINGS_AS_ERRORS AND NOT MENDLINE_SANITIZER)
  target_compile_options(mendline_warnings INTERFACE -Werror)
endif()

add_library(mendline_hardening INTERFACE)
target_compile_options(mendline_hardening INTERFACE
  -fstack-protector-strong -fstack-clash-protection -fno-plt)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64|AMD64")
  target_compile_options(mendline_hardening INTERFACE -fcf-protection)
endif()
target_compile_definitions(mendline_hardening INTERFACE _GLIBCXX_ASSERTIONS)
target_link_options(mendline_hardening INTERFACE
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
if(NOT MENDLINE_SANITIZER AND NOT MENDLINE_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  # The sanitizers have interceptors of their own for what the fortified calls check, and without
  # optimisation the macro does nothing but warn.
  target_compile_definitions(mendline_hardening INTERFACE _FORTIFY_SOURCE=2)
endif()

# Sanitizers instrument everything in the build, tests and rig included.
if(MENDLINE_SANITIZER STREQUAL "address")
  # vptr looks at memory through a pipe, and calls an object false where the process has no
  # descriptor left for one, as it has in tests. Numbers that a conversion has no room for are not
  # among what "undefined" looks for.
  add_compile_options(-fsanitize=address,undefined,float-cast-overflow -fno-sanitize=vptr
                      -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(MENDLINE_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(MENDLINE_SANITIZER)
  message(FATAL_ERROR "MENDLINE_SANITIZER is '${MENDLINE_SANITIZER}'; "
                      "it takes address, thread or nothing")
endif()

add_library(mendline_coverage INTERFACE)
if(MENDLINE_COVERAGE)
  # -fprofile-update=atomic: requests and the collection thread count lines at the same time.
  target_compile_options(mendline_coverage INTERFACE
    --coverage -fprofile-update=atomic -fno-inline -fno-elide-constructors)
  target_link_options(mendline_coverage INTERFACE --coverage)
endif()
