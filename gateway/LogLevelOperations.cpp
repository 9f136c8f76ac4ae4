#include "gateway/LogLevelOperations.h"

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <string>

#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

struct LevelWord {
  const char* word;
  std::int32_t level;
};

// Required: Warn, Error and "Faltal" have no word here; they come from the environment alone.
// Pinned by LogLevelOperations.*.
constexpr LevelWord kLevelWords[] = {{"INFO", LogLevel::Info},
                                     {"DEBUG", LogLevel::Debug},
                                     {"TRACE", LogLevel::Trace},
                                     {"VERBOSE", LogLevel::Verbose}};

}  // namespace

void getLogLevel(const ptree& /*requestTree*/, ptree& responseTree) {
  const std::int32_t level = GetLogThreshold();
  for (const LevelWord& entry : kLevelWords) {
    if (entry.level == level) {
      putResult(responseTree, "LOGLEVEL", entry.word);
      return;
    }
  }
  // Required: the answer is then knowingly not the threshold in force. Pinned by
  // LogLevelOperations.*.
  LogWarn(&kTag, "No matched loglevel found for GetLogLevel");
  putResult(responseTree, "LOGLEVEL", "INFO");
}

void setLogLevel(const ptree& requestTree, ptree& responseTree) {
  const auto word = requestTree.get<std::string>("MendlineOperation.loglevel", "");
  for (const LevelWord& entry : kLevelWords) {
    if (word == entry.word) {
      SetLogThreshold(entry.level);
      LogInfo(&kTag, "Change log level to %s", word.c_str());
      putResult(responseTree, "INFO", "Succeed to set loglevel");
      return;
    }
  }
  LogError(&kTag, "Invalid loglevel %s at SetLogLevel", word.c_str());
  putResult(responseTree, "ERROR", "Invalid loglevel " + word);
}

}  // namespace mendline
