// SECURITY.md claims nothing that no test shows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace mendline {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// "Suite.Name" of every test in the sources.
std::set<std::string> tests() {
  std::set<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(MENDLINE_SOURCE_DIR "/tests")) {
    if (entry.path().extension() != ".cpp") {
      continue;
    }
    const std::string text = contentOf(entry.path());
    for (const char* macro : {"\nTEST(", "\nTEST_F(", "\nTEST_P("}) {
      for (std::size_t at = text.find(macro); at != std::string::npos;
           at = text.find(macro, at + 1)) {
        const std::size_t begin = at + std::string(macro).size();
        std::string name;
        for (const char c : text.substr(begin, text.find(')', begin) - begin)) {
          if (c == ',') {
            name += '.';
          } else if (c != ' ' && c != '\n') {
            name += c;
          }
        }
        names.insert(name);
      }
    }
  }
  return names;
}

bool isShown(const std::string& claim, const std::set<std::string>& names) {
  if (claim.back() != '*') {
    return names.count(claim) == 1;
  }
  const auto first = names.lower_bound(claim.substr(0, claim.size() - 1));
  return first != names.end() && first->rfind(claim.substr(0, claim.size() - 1), 0) == 0;
}

// The words in backticks that have the form of a test: Suite.Name or Suite.*
std::vector<std::string> claims() {
  std::vector<std::string> found;
  std::istringstream text(contentOf(MENDLINE_SOURCE_DIR "/SECURITY.md"));
  bool isCode = false;
  for (std::string part; std::getline(text, part, '`'); isCode = !isCode) {
    const std::size_t dot = part.find('.');
    if (isCode && dot != std::string::npos && dot + 1 < part.size() &&
        std::isupper(static_cast<unsigned char>(part[0])) != 0 &&
        part.find_first_of(" /") == std::string::npos) {
      found.push_back(part);
    }
  }
  return found;
}

TEST(SecurityClaims, NameTestsThatThereAre) {
  const std::set<std::string> names = tests();
  EXPECT_GT(claims().size(), 10U);
  for (const std::string& claim : claims()) {
    EXPECT_TRUE(isShown(claim, names)) << claim;
  }
  EXPECT_FALSE(isShown("HostileUser.NoSuchTest", names));
  EXPECT_FALSE(isShown("NoSuchSuite.*", names));
}

TEST(SecurityClaims, NameFuzzProgramsThatThereAre) {
  const std::string page = contentOf(MENDLINE_SOURCE_DIR "/SECURITY.md");
  const std::string words = "the fuzz program `";
  int found = 0;
  for (std::size_t at = page.find(words); at != std::string::npos; at = page.find(words, at + 1)) {
    const std::size_t begin = at + words.size();
    const std::string name = page.substr(begin, page.find('`', begin) - begin);
    EXPECT_TRUE(fs::is_directory(MENDLINE_SOURCE_DIR "/fuzz/corpus/" + name)) << name;
    ++found;
  }
  EXPECT_EQ(found, 2);
}

}  // namespace
}  // namespace mendline
