// Lines of files below /proc, read by hand and by the product. Each function gives the rule that
// the product broke, or null. Numbers that do not fit their field count for none: what the scan
// makes of them is not settled.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"
#include "tests/rules/Scanner.h"

namespace mendline::rules {

// A copy that ends where its memory ends, so that a sanitizer sees any look behind it.
inline std::unique_ptr<char[]> exactCopy(const std::string& line) {
  auto copy = std::make_unique<char[]>(line.size() + 1);
  std::memcpy(copy.get(), line.c_str(), line.size() + 1);
  return copy;
}

template <typename Integer>
bool fitsInto(const Scanner::Number& number) {
  return number.isWithin(static_cast<std::int64_t>(std::numeric_limits<Integer>::min()),
                         static_cast<std::uint64_t>(std::numeric_limits<Integer>::max()));
}

// A field of a record, and what it has to hold.
struct Field {
  std::uint64_t value = 0;
  bool isSettled = true;

  bool holds(std::uint64_t actual) const { return !isSettled || actual == value; }
};

// Takes numbers as long as there are any, into the fields in their order.
inline void takeNumbers(Scanner& scanner, std::initializer_list<Field*> fields) {
  for (Field* field : fields) {
    const auto number = scanner.number();
    if (!number) {
      return;
    }
    *field = {number->wrapped(), number->fits};
  }
}

// --- /proc/<pid>/stat ---------------------------------------------------------------------------

inline const char* brokenStatRule(const std::string& line) {
  constexpr std::size_t kNumbers = 22;  // ppid to rsslim
  const auto copy = exactCopy(line);
  ProcessStat stat;
  std::memset(static_cast<void*>(&stat), 0x5a, sizeof stat);
  const bool taken = parseProcessStat(copy.get(), 4711, stat);
  if (stat.uid != 4711) {
    return "the owner is the caller's";
  }
  const auto pid = Scanner(line).number();
  if (pid ? fitsInto<std::int32_t>(*pid) && static_cast<std::uint64_t>(stat.pid) != pid->wrapped()
          : stat.pid != 0) {
    return "the pid is the number at the start, or 0";
  }
  const std::size_t first = line.find('(');
  const std::size_t last = line.rfind(')');
  if (first == std::string::npos || last == std::string::npos || last < first) {
    return taken ? "a line without a name is refused" : nullptr;
  }
  if (std::string(stat.comm) != line.substr(first + 1, last - first - 1).substr(0, 254)) {
    return "the name lies between the outermost parentheses";
  }
  Scanner columns(std::string_view(line).substr(std::min(last + 2, line.size())));
  const std::optional<char> state = columns.character();
  std::array<Scanner::Number, kNumbers> numbers;
  std::size_t count = 0;
  for (; state && count < kNumbers; ++count) {
    const auto number = columns.number();
    if (!number) {
      break;
    }
    numbers[count] = *number;
  }
  if (taken != (count == kNumbers)) {
    return "a line is taken when all its columns are there";
  }
  if (!taken) {
    return nullptr;
  }
  if (stat.state != *state) {
    return "the state is the character behind the name";
  }
  std::size_t next = 0;
  const auto holds = [&](auto field) {
    const Scanner::Number& number = numbers[next++];
    return !fitsInto<decltype(field)>(number) ||
           static_cast<std::uint64_t>(field) == number.wrapped();
  };
  const bool all =
      holds(stat.ppid) && holds(stat.pgrp) && holds(stat.session) && holds(stat.tty_nr) &&
      holds(stat.tpgid) && holds(stat.flags) && holds(stat.minflt) && holds(stat.cminflt) &&
      holds(stat.majflt) && holds(stat.cmajflt) && holds(stat.utime) && holds(stat.stime) &&
      holds(stat.cutime) && holds(stat.cstime) && holds(stat.priority) && holds(stat.nice) &&
      holds(stat.num_threads) && holds(stat.itrealvalue) && holds(stat.starttime) &&
      holds(stat.vsize) && holds(stat.rss) && holds(stat.rsslim);
  return all ? nullptr : "every column is its number";
}

// --- /proc/<pid>/io -----------------------------------------------------------------------------

// The lines of one file, one after the other.
class IoLines {
 public:
  const char* brokenRule(const std::string& line) {
    parseProcessIoLine(exactCopy(line).get(), io_);
    const std::size_t blank = line.find(' ');
    if (blank != std::string::npos) {
      const std::string start = line.substr(0, std::min<std::size_t>(blank, 7));
      // As strncmp compares: the rest of either text is not looked at.
      const auto begins = [&](const char* key) {
        return start == std::string(key).substr(0, std::min<std::size_t>(blank, 7));
      };
      Scanner scanner(line);
      if (begins("rchar:")) {
        static_cast<void>(scanner.word());
        takeNumbers(scanner, {&rchar_});
      } else if (begins("wchar:")) {
        static_cast<void>(scanner.word());
        takeNumbers(scanner, {&wchar_});
      }
    }
    if (!rchar_.holds(io_.rchar)) {
      return "rchar is its line's number";
    }
    return wchar_.holds(io_.wchar) ? nullptr : "wchar is its line's number";
  }

 private:
  ProcessIo io_ = {11, 12};
  Field rchar_ = {11, true};
  Field wchar_ = {12, true};
};

// --- /proc/stat ---------------------------------------------------------------------------------

class CpuLines {
 public:
  const char* brokenRule(const std::string& line) {
    parseStatLine(exactCopy(line).get(), times_);
    Scanner scanner(line);
    const std::string word = scanner.word().value_or("");
    if (word == "cpu") {
      takeNumbers(scanner, {&user_, &nice_, &system_, &idle_});
    } else if (word == "btime") {
      takeNumbers(scanner, {&bootTime_});
    }
    if (!user_.holds(times_.user) || !nice_.holds(times_.nice) || !system_.holds(times_.system) ||
        !idle_.holds(times_.idle)) {
      return "the CPU times are the first four numbers of the cpu line";
    }
    return bootTime_.holds(times_.bootTime) ? nullptr : "the boot time is the btime line's";
  }

 private:
  CpuTimes times_ = {11, 12, 13, 14, 15};
  Field user_ = {11, true};
  Field nice_ = {12, true};
  Field system_ = {13, true};
  Field idle_ = {14, true};
  Field bootTime_ = {15, true};
};

// --- /proc/diskstats ----------------------------------------------------------------------------

class DiskLines {
 public:
  const char* brokenRule(const std::string& line) {
    parseDiskStatLine(exactCopy(line).get(), record_);
    takeColumns(line);
    if (!major_.holds(static_cast<std::uint64_t>(record_.major)) ||
        !minor_.holds(static_cast<std::uint64_t>(record_.minor))) {
      return "the numbers of the device are columns 1 and 2";
    }
    if (std::string(record_.name, strnlen(record_.name, sizeof record_.name)) != name_) {
      return "the name is column 3, cut at 31 bytes";
    }
    const std::array<std::uint64_t, 11> fields = {
        record_.readsCompleted,  record_.readsMerged,  record_.sectorsRead,      record_.msReading,
        record_.writesCompleted, record_.writesMerged, record_.sectorsWritten,   record_.msWriting,
        record_.iosInProgress,   record_.msDoingIo,    record_.weightedMsDoingIo};
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (!counters_[i].holds(fields[i])) {
        return "every counter is its column";
      }
    }
    return nullptr;
  }

 private:
  void takeColumns(const std::string& line) {
    Scanner scanner(line);
    for (Field* field : {&major_, &minor_}) {
      const auto number = scanner.number();
      if (!number) {
        return;
      }
      *field = {number->wrapped(), fitsInto<std::int32_t>(*number)};
    }
    const auto word = scanner.word();
    if (!word) {
      return;
    }
    name_ = word->substr(0, 31);
    for (Field& counter : counters_) {
      const auto number = scanner.number();
      if (!number) {
        return;
      }
      counter = {number->wrapped(), number->fits};
    }
  }

  DiskStatLine record_;
  Field major_;
  Field minor_;
  std::string name_;
  std::array<Field, 11> counters_;
};

// Hands every line of a text, its line feed included, to `check`, as a C string; a line that is
// longer than the reader's buffer in the pieces in which it comes.
template <typename Check>
const char* brokenRuleOfLines(const std::string& text, Check check, std::size_t longest = 510) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1);
    const std::size_t length = std::min(end + 1 - at, longest);
    if (const char* rule = check.brokenRule(cText(text.substr(at, length)))) {
      return rule;
    }
    at += length;
  }
  return nullptr;
}

}  // namespace mendline::rules
