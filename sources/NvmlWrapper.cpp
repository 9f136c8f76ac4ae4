#include "sources/NvmlWrapper.h"

#include <dlfcn.h>

#include <atomic>
#include <fstream>
#include <locale>
#include <utility>

#include "logging/InternalLogger.h"

namespace mendline {
namespace {

constinit const LogTag kTag("NvmlWrapper");

constexpr char kLibraryFile[] = "libnvidia-ml.so.1";
constexpr char kXConfigPath[] = "/usr/lib/norvane/tarnhost/resources/X11/xorg.conf";
constexpr char kKeyword[] = "BusID";
constexpr std::size_t kShortestLine = 5;

// The opening quote and the four characters of "PCI:", which are not compared.
constexpr std::size_t kPrefixLength = 5;

std::string trimmed(const std::string& text) {
  const std::locale locale;
  auto begin = text.begin();
  auto end = text.end();
  while (begin != end && std::isspace(*begin, locale)) {
    ++begin;
  }
  while (end != begin && std::isspace(*(end - 1), locale)) {
    --end;
  }
  return {begin, end};
}

template <typename Function>
bool mapFunction(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  return function != nullptr;
}

}  // namespace

std::optional<std::string> busIdOfLine(const std::string& line) {
  if (line.size() < kShortestLine || line.find(kKeyword) == std::string::npos) {
    return std::nullopt;
  }
  const std::string text = trimmed(line);
  if (text.front() == '#') {
    return std::nullopt;
  }
  // Required: positions that are not found and counts that come out negative wrap, so a line with
  // one quote or none gives what stands to its end; substr and replace raise where a start lies
  // beyond the end. Pinned by BusIdOfLine.*.
  const std::size_t firstQuote = text.find('"');
  const std::size_t lastQuote = text.rfind('"');
  std::string value =
      text.substr(firstQuote + kPrefixLength, lastQuote - firstQuote - kPrefixLength);
  if (const std::size_t at = value.rfind('@'); at != std::string::npos) {
    // bus@domain:device:function
    const std::size_t colon = value.find(':');
    value = value.substr(at + 1, colon - at - 1) + ":" + value.substr(0, at) + value.substr(colon);
  }
  value.replace(value.rfind(':'), 1, ".");
  // Required: the decimal numbers of the file stay decimal, although NVML reads hexadecimal ones.
  // Pinned by BusIdOfLine.*.
  return value;
}

NvmlWrapper& NvmlWrapper::getInstance() {
  // Never destroyed: a request may still be in here when the process exits.
  static NvmlWrapper& instance = *new NvmlWrapper;
  return instance;
}

bool NvmlWrapper::isReady() {
  return std::atomic_ref(nvmlReady).load(std::memory_order_relaxed);
}

void NvmlWrapper::setReady(bool ready) {
  std::atomic_ref(nvmlReady).store(ready, std::memory_order_relaxed);
}

bool NvmlWrapper::init() {
  // From the start, so that every way out but the last leaves it so, an exception included.
  setReady(false);
  if (!openLibrary()) {
    return false;
  }
  readBusIds();
  if (busIds.empty()) {
    LogError(&kTag, "Nvidia GPU device pcibus id is empty");
    static_cast<void>(nvmlShutdown());
    static_cast<void>(dlclose(library));
    library = nullptr;
    return false;
  }
  setReady(true);
  return true;
}

bool NvmlWrapper::openLibrary() {
  library = dlopen(kLibraryFile, RTLD_LAZY | RTLD_GLOBAL);
  if (library == nullptr) {
    LogWarn(&kTag, "Failed to load library nvidia-ml: %s", dlerror());
    return false;
  }
  NvmlReturn (*nvmlInit)() = nullptr;
  const bool hasInit = mapFunction(library, "nvmlInit_v2", nvmlInit);
  const bool hasShutdown = mapFunction(library, "nvmlShutdown", nvmlShutdown);
  const bool hasGetHandle =
      mapFunction(library, "nvmlDeviceGetHandleByPciBusId_v2", nvmlDeviceGetHandleByPciBusId);
  const bool hasGetMemory =
      mapFunction(library, "nvmlDeviceGetMemoryInfo", nvmlDeviceGetMemoryInfo);
  if (!hasInit || !hasShutdown || !hasGetHandle || !hasGetMemory) {
    LogError(&kTag, "Failed to map nvml library functions");
    static_cast<void>(dlclose(library));
    return false;
  }
  if (const NvmlReturn result = nvmlInit(); result != 0) {
    LogError(&kTag, "Failed to execute nvmlInit, result %d", result);
    static_cast<void>(dlclose(library));
    return false;
  }
  return true;
}

// Required: the list is not cleared, and every uncommented line counts, in whatever section. Pinned
// by NvmlWrapperOnAHost.*BusIds*.
void NvmlWrapper::readBusIds() {
  std::ifstream config(kXConfigPath);
  for (std::string line; std::getline(config, line);) {
    if (std::optional<std::string> busId = busIdOfLine(line)) {
      busIds.push_back(std::move(*busId));
    }
  }
}

void NvmlWrapper::shutdown() {
  if (nvmlShutdown != nullptr) {
    static_cast<void>(nvmlShutdown());
  }
  if (library != nullptr) {
    static_cast<void>(dlclose(library));
    library = nullptr;
  }
  setReady(false);
}

bool NvmlWrapper::maxMemoryUsage(double* usage) {
  *usage = 0.0;
  for (const std::string& busId : busIds) {
    NvmlDevice device = nullptr;
    if (const NvmlReturn result = nvmlDeviceGetHandleByPciBusId(busId.c_str(), &device);
        result != 0) {
      LogError(&kTag, "Failed to get nvml device by pcibus id %s, result %d", busId.c_str(),
               result);
      return false;
    }
    NvmlMemory memory{};
    if (const NvmlReturn result = nvmlDeviceGetMemoryInfo(device, &memory); result != 0) {
      LogError(&kTag, "Failed to get nvml device memory info, result %d", result);
      return false;
    }
    const double percentage =
        static_cast<double>(memory.used * 100) / static_cast<double>(memory.total);
    LogDebug(&kTag, "BusID %s, Memory used %lu, Memory total %lu, usage %.2f", busId.c_str(),
             static_cast<unsigned long>(memory.used >> 20U),
             static_cast<unsigned long>(memory.total >> 20U), percentage);
    if (percentage > *usage) {
      *usage = percentage;
    }
  }
  return true;
}

}  // namespace mendline
