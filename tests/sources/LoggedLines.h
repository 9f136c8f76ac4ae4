// The log as one text per record, for comparing all of it at once.
#pragma once

#include <string>
#include <vector>

#include "Log.h"

namespace mendline {

// "Warn SystemQuery: message" for each record; a line of any other form as it stands.
inline std::vector<std::string> loggedLines(const rig::Log& log) {
  std::vector<std::string> lines;
  for (const rig::LogRecord& record : log.records()) {
    lines.push_back(record.wellFormed() ? record.level + ' ' + record.tag + ": " + record.message
                                        : record.message);
  }
  return lines;
}

}  // namespace mendline
