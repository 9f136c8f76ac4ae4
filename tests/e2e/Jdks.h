// The JDKs of this host, each of which an end-to-end test may run.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace mendline {

// The java of each JDK here, once, however many names it has.
inline std::vector<std::string> javas() {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> byRealPath;
  const auto add = [&](const fs::path& java) {
    std::error_code error;
    const fs::path real = fs::canonical(java, error);
    if (!error) {
      byRealPath.emplace(real.string(), java.string());
    }
  };
  add(MENDLINE_JAVA);
  for (const auto& jdk : fs::directory_iterator("/usr/lib/jvm")) {
    add(jdk.path() / "bin/java");
  }
  std::vector<std::string> result;
  for (const auto& [real, java] : byRealPath) {
    result.push_back(java);
  }
  return result;
}

}  // namespace mendline
