// The agent's configuration file, in its place on the private host: the display range that a start
// makes of it. No segment can be had, which ends each start before it makes a thread.
#include <sys/shm.h>

#include <cerrno>
#include <fstream>
#include <utility>
#include <vector>

#include "HostPaths.h"
#include "collector/CollectorControl.h"
#include "collector/SessionCounters.h"
#include "fuzz/Fuzz.h"
#include "logging/InternalLogger.h"
#include "tests/rules/Scanner.h"

using namespace mendline;
using namespace mendline::fuzz;

// In the place of the C library's.
extern "C" int shmget(key_t /*key*/, std::size_t size, int /*flags*/) noexcept {
  require(size >= 80 && size <= std::size_t{60} * 80 && size % 80 == 0,
          "the segment has 1 to 60 records");
  errno = ENOSPC;
  return -1;
}

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

std::string trimmed(const std::string& text) {
  std::size_t start = 0;
  std::size_t end = text.size();
  while (start < end && rules::isBlank(text[start])) {
    ++start;
  }
  while (end > start && rules::isBlank(text[end - 1])) {
    --end;
  }
  return text.substr(start, end - start);
}

const std::string* find(const Entries& entries, const std::string& key) {
  for (const auto& [name, value] : entries) {
    if (name == key) {
      return &value;
    }
  }
  return nullptr;
}

// What stands before any section, and the names of the sections; nothing for a file of wrong
// syntax.
std::optional<Entries> topLevelOf(const std::string& file) {
  Entries top;
  Entries section;
  bool inSection = false;
  for (std::size_t at = 0; at <= file.size();) {
    const std::size_t end = std::min(file.find('\n', at), file.size());
    const std::string line = trimmed(file.substr(at, end - at));
    at = end + 1;
    if (line.empty() || line[0] == ';' || line[0] == '#') {
      continue;
    }
    if (line[0] == '[') {
      if (inSection && section.empty()) {
        top.pop_back();
      }
      const std::size_t close = line.find(']');
      if (close == std::string::npos) {
        return std::nullopt;
      }
      const std::string name = trimmed(line.substr(1, close - 1));
      if (find(top, name) != nullptr) {
        return std::nullopt;
      }
      top.emplace_back(name, "");
      section.clear();
      inSection = true;
      continue;
    }
    const std::size_t sign = line.find('=');
    const std::string key = trimmed(line.substr(0, sign));
    Entries& container = inSection ? section : top;
    if (sign == std::string::npos || sign == 0 || find(container, key) != nullptr) {
      return std::nullopt;
    }
    container.emplace_back(key, trimmed(line.substr(sign + 1)));
  }
  if (inSection && section.empty()) {
    top.pop_back();
  }
  return top;
}

void takeNumber(const Entries& entries, const std::string& key, std::int64_t& number) {
  const std::string* text = find(entries, key);
  if (text == nullptr) {
    return;
  }
  rules::Scanner scanner(*text);
  const auto value = scanner.number();
  scanner.skipBlanks();
  if (value && scanner.rest().empty() &&
      value->isWithin(std::numeric_limits<std::int32_t>::min(),
                      std::numeric_limits<std::int32_t>::max())) {
    number = static_cast<std::int64_t>(value->wrapped());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static_cast<void>(host());
  const std::string text = textOf(data, size);
  std::ofstream(rig::kConfigFile, std::ios::binary | std::ios::trunc) << text;
  displayNumberMin = 100;
  displayNumberMax = 159;
  maxSessionNumber = 60;
  SetLogThreshold(LogLevel::Info);
  require(!StartCollector(), "no segment, no start");

  std::int64_t min = 100;
  std::int64_t max = 159;
  if (const auto entries = topLevelOf(text)) {
    takeNumber(*entries, "Desktop.displayNumberMin", min);
    takeNumber(*entries, "Desktop.displayNumberMax", max);
  }
  if (min > max || max < 0 || min > 59535) {
    min = 100;
    max = 159;
  }
  max = std::min<std::int64_t>(max, 59535);
  min = std::max<std::int64_t>(min, 0);
  max = std::min(max, min + 59);
  require(displayNumberMin == min && displayNumberMax == max, "the range is the file's, clamped");
  require(maxSessionNumber == max + 1 - min, "there is a record for each display of the range");
  StopCollector();
  return 0;
}
