#include "GpuDriver.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>

#include "Error.h"

namespace mendline::rig {
namespace {

constexpr char kLibrary[] = "/usr/lib/libnvidia-ml.so.1";
constexpr char kCalls[] = "/run/gpu-driver-calls";

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw Error("cannot read " + path);
  }
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace

GpuDriver::GpuDriver(PrivateHost& host, const std::string& withoutFunction) : host_(host) {
  std::string path = NVML_STAND_IN;
  if (!withoutFunction.empty()) {
    path += "-without-" + withoutFunction;
  }
  host_.withFile(kLibrary, contentOf(path + ".so"));
  setenv("GPU_DRIVER_CALLS", kCalls, 1);
}

GpuDriver::~GpuDriver() {
  unsetenv("GPU_DRIVER_CALLS");
  unsetenv("GPU_DRIVER_GPUS");
  unsetenv("GPU_DRIVER_FAILURES");
}

GpuDriver& GpuDriver::withGpu(const std::string& busId, unsigned long long used,
                              unsigned long long total) {
  gpus_ += busId + " " + std::to_string(used) + " " + std::to_string(total) + " ";
  setenv("GPU_DRIVER_GPUS", gpus_.c_str(), 1);
  return *this;
}

GpuDriver& GpuDriver::withoutGpus() {
  gpus_.clear();
  unsetenv("GPU_DRIVER_GPUS");
  return *this;
}

GpuDriver& GpuDriver::failing(const std::string& function, int result) {
  failures_ = function + "=" + std::to_string(result) + " " + failures_;
  setenv("GPU_DRIVER_FAILURES", failures_.c_str(), 1);
  return *this;
}

std::size_t GpuDriver::calls(const std::string& function, const std::string& argument) const {
  std::ifstream file(kCalls);
  std::size_t count = 0;
  for (std::string line; std::getline(file, line);) {
    const std::size_t blank = line.find(' ');
    if (line.substr(0, blank) == function &&
        (argument.empty() || line.substr(blank + 1) == argument)) {
      ++count;
    }
  }
  return count;
}

bool GpuDriver::isLoaded() {
  return contentOf("/proc/self/maps").find("libnvidia-ml.so.1") != std::string::npos;
}

}  // namespace mendline::rig
