// The fullest GPU of the agent's X server, by NVIDIA's management library (NVML).
//
// The library is loaded at run time; a host without it works. Called by request threads only, and
// without any lock: a StopCollector that overlaps a LbMetrics may unload the library under it.
// Messages go out under the tag "NvmlWrapper".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace mendline {

// NVML's own declarations, as far as they are used; 0 is its success.
using NvmlReturn = int;
using NvmlDevice = void*;
struct NvmlMemory {
  unsigned long long total;  // bytes
  unsigned long long free;   // bytes
  unsigned long long used;   // bytes
};

class NvmlWrapper {
 public:
  // The one object, there from the library's load on.
  static NvmlWrapper& getInstance();

  // Loads and initialises NVML and reads the bus ids of the X configuration file, which are
  // appended to those of earlier calls. True when at least one is known; each failure is logged and
  // leaves `nvmlReady` false. A line that the parsing rule can't take raises std::out_of_range,
  // with NVML initialised and the flag false.
  bool init();

  // Ends and unloads NVML, once per call; the bus ids stay.
  void shutdown();

  // Sets `usage` to the highest percentage of used memory over all bus ids, 0 without any. False at
  // the first device that can't be read, which is logged, with `usage` as it is by then.
  bool maxMemoryUsage(double* usage);

  // Whether init has succeeded since the last failure and the last shutdown. A plain field without
  // a lock; every access is one relaxed atomic load or store.
  bool isReady();

 private:
  // Loads the library, takes its functions and calls its initialisation.
  bool openLibrary();
  void readBusIds();
  void setReady(bool ready);

  // Set by init. After a failure they may hold what a closed library had; nothing uses them then.
  void* library = nullptr;
  NvmlReturn (*nvmlShutdown)() = nullptr;
  NvmlReturn (*nvmlDeviceGetHandleByPciBusId)(const char* busId, NvmlDevice* device) = nullptr;
  NvmlReturn (*nvmlDeviceGetMemoryInfo)(NvmlDevice device, NvmlMemory* memory) = nullptr;

  std::vector<std::string> busIds;  // in file order, once per init
  bool nvmlReady = false;
};

// The bus id that a line of the X configuration file states, in NVML's form; nothing when the line
// states none or is a comment. Raises std::out_of_range when the value has no ':'.
std::optional<std::string> busIdOfLine(const std::string& line);

}  // namespace mendline
