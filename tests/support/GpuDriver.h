// A GPU management library on the private host, found by the loader's normal search.
//
// A GpuDriver owns the library's file below /usr/lib and what the library is told through the
// environment of this process; both go with it. A library that is loaded stays what it was.
#pragma once

#include <cstddef>
#include <string>

#include "PrivateHost.h"

namespace mendline::rig {

class GpuDriver {
 public:
  // Without that function, if one is named.
  explicit GpuDriver(PrivateHost& host, const std::string& withoutFunction = "");
  ~GpuDriver();
  GpuDriver(const GpuDriver&) = delete;
  GpuDriver& operator=(const GpuDriver&) = delete;

  // From now on there is such a GPU too.
  GpuDriver& withGpu(const std::string& busId, unsigned long long used, unsigned long long total);
  GpuDriver& withoutGpus();
  // From now on that function returns this result.
  GpuDriver& failing(const std::string& function, int result);

  // How often that function has been called; with an argument, how often with that one.
  std::size_t calls(const std::string& function, const std::string& argument = "") const;
  // Whether the library is mapped into this process.
  static bool isLoaded();

 private:
  PrivateHost& host_;
  std::string gpus_;
  std::string failures_;
};

}  // namespace mendline::rig
