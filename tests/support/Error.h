// What the rig throws when it cannot do what a test asks; GoogleTest reports it as a failure.
#pragma once

#include <stdexcept>
#include <string>

namespace mendline::rig {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws an Error that says what failed and what errno says about it.
[[noreturn]] void throwErrno(const std::string& what);

}  // namespace mendline::rig
