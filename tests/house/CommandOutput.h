// Runs a shell command and gives its standard output. Fails the test when it exits with an error.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

namespace mendline {

inline std::string commandOutput(const std::string& command) {
  std::string output;
  std::FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return output;
  }
  std::array<char, 4096> buffer{};
  while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
    output.append(buffer.data(), count);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

}  // namespace mendline
