// /proc/meminfo as a file of the private host, with memory figures of sysinfo that stand still.
#include <sys/sysinfo.h>

#include <cstring>

#include "fuzz/Fuzz.h"
#include "sources/SystemQuery.h"
#include "tests/rules/Scanner.h"

using namespace mendline;
using namespace mendline::fuzz;

// In the place of the C library's.
extern "C" int sysinfo(struct sysinfo* info) noexcept {
  std::memset(info, 0, sizeof *info);
  info->uptime = 12345;
  info->totalram = 8'000'000;
  info->freeram = 1'000'000;
  info->bufferram = 234'000;
  info->mem_unit = 4096;
  return 0;
}

namespace {

std::uint32_t cachedKilobytes(const std::string& text) {
  rules::Scanner scanner(text);
  while (const auto word = scanner.word()) {
    if (*word != "Cached:") {
      continue;
    }
    const auto number = scanner.number();
    if (!number) {
      return 0;
    }
    const std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
    if (!number->fits || number->amount > most) {
      return static_cast<std::uint32_t>(most);
    }
    return static_cast<std::uint32_t>(number->wrapped());
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static rig::SyntheticProc& proc = host().syntheticProc();
  const std::string text = textOf(data, size);
  proc.setFile("meminfo", text);
  MemoryStats stats;
  require(readMemoryStats(stats), "an unexpected file is no failure");
  require(stats.uptime == 12345 && stats.total == 8'000'000, "uptime and total are sysinfo's");
  const std::uint32_t cached = cachedKilobytes(text) * 1024U;
  require(stats.available == 1'234'000 + std::uint64_t{cached},
          "available is free and buffer memory and the page cache modulo 4 GiB");
  return 0;
}
