// A locale that writes decimals with a comma, compiled from the sources of the package "locales".
//
// While one exists, this process's environment names it, and every program that is started inherits
// that; this process itself takes it only where it calls setlocale. The constructor throws Error
// when the locale cannot be compiled.
#pragma once

#include <string>

namespace mendline::rig {

class CommaLocale {
 public:
  CommaLocale();
  ~CommaLocale();
  CommaLocale(const CommaLocale&) = delete;
  CommaLocale& operator=(const CommaLocale&) = delete;

 private:
  std::string folder_;
};

}  // namespace mendline::rig
