// What sysconf answers to this program.
//
// The kernel cannot make sysconf fail or change the page size of a running host. So a program that
// includes this header has a sysconf of its own, which asks the C library unless told otherwise.
// The library under test is linked into the program and calls this one.
#pragma once

#include <unistd.h>

#include <cerrno>

// The C library's own, under the name that nothing here replaces.
extern "C" long __sysconf(int name) noexcept;

namespace mendline {

struct SysconfAnswer {
  int name = -1;
  long value = 0;
  int error = 0;
};
inline SysconfAnswer sysconfAnswer;
inline unsigned sysconfQuestions = 0;  // how often sysconfAnswer was given

// From now on sysconf(name) gives `value` and everything else what it is on this host.
inline void answerSysconf(int name, long value) {
  sysconfAnswer = {name, value, 0};
}
inline void failSysconf(int name, int error) {
  sysconfAnswer = {name, -1, error};
}

}  // namespace mendline

// A sanitizer's runtime asks for the page size before it can serve instrumented code.
extern "C" __attribute__((used, no_sanitize("address"), no_sanitize("thread"),
                          no_sanitize("undefined"))) inline long
sysconf(int name) noexcept {
  if (name != mendline::sysconfAnswer.name) {
    return __sysconf(name);
  }
  ++mendline::sysconfQuestions;
  if (mendline::sysconfAnswer.error != 0) {
    errno = mendline::sysconfAnswer.error;
  }
  return mendline::sysconfAnswer.value;
}
