// A stand-in for NVIDIA's management library, with the few calls that the product makes. What it
// answers is told by the environment of the process that loads it; see GpuDriver.h.
//
// Built several times: once whole and once without each of the four functions.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace {

struct Gpu {
  std::string busId;
  unsigned long long used = 0;
  unsigned long long total = 0;
};

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// Notes the call and gives what it shall return: 0, or the number behind "<function>=".
int call(const char* function, const char* argument = "") {
  if (std::FILE* calls = std::fopen(setting("GPU_DRIVER_CALLS").c_str(), "a")) {
    std::fprintf(calls, "%s %s\n", function, argument);
    std::fclose(calls);
  }
  std::istringstream failures(setting("GPU_DRIVER_FAILURES"));
  const std::string key = std::string(function) + "=";
  for (std::string word; failures >> word;) {
    if (word.compare(0, key.size(), key) == 0) {
      return std::atoi(word.c_str() + key.size());
    }
  }
  return 0;
}

// The GPU at this place of "BUSID USED TOTAL BUSID USED TOTAL …", counted from 1.
bool gpuAt(long place, Gpu& gpu) {
  std::istringstream gpus(setting("GPU_DRIVER_GPUS"));
  for (long i = 1; gpus >> gpu.busId >> gpu.used >> gpu.total; ++i) {
    if (i == place) {
      return true;
    }
  }
  return false;
}

constexpr int kNotFound = 6;

}  // namespace

struct Memory {
  unsigned long long total;
  unsigned long long free;
  unsigned long long used;
};

#define EXPORTED extern "C" __attribute__((visibility("default")))

#ifndef WITHOUT_nvmlInit_v2
EXPORTED int nvmlInit_v2() {
  return call("nvmlInit_v2");
}
#endif

#ifndef WITHOUT_nvmlShutdown
EXPORTED int nvmlShutdown() {
  return call("nvmlShutdown");
}
#endif

#ifndef WITHOUT_nvmlDeviceGetHandleByPciBusId_v2
EXPORTED int nvmlDeviceGetHandleByPciBusId_v2(const char* busId, void** device) {
  if (const int failure = call("nvmlDeviceGetHandleByPciBusId_v2", busId)) {
    return failure;
  }
  Gpu gpu;
  for (long place = 1; gpuAt(place, gpu); ++place) {
    if (gpu.busId == busId) {
      *device = reinterpret_cast<void*>(place);
      return 0;
    }
  }
  return kNotFound;
}
#endif

#ifndef WITHOUT_nvmlDeviceGetMemoryInfo
EXPORTED int nvmlDeviceGetMemoryInfo(void* device, Memory* memory) {
  if (const int failure = call("nvmlDeviceGetMemoryInfo")) {
    return failure;
  }
  Gpu gpu;
  if (!gpuAt(reinterpret_cast<long>(device), gpu)) {
    return kNotFound;
  }
  memory->total = gpu.total;
  memory->used = gpu.used;
  memory->free = gpu.total - gpu.used;
  return 0;
}
#endif
