// The include picture of docs/architecture.md holds, and there are no include cycles.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace mendline {
namespace {

namespace fs = std::filesystem;

const fs::path kSource = MENDLINE_SOURCE_DIR;
const std::vector<std::string> kRooms = {"gateway", "collector", "generators", "sources",
                                         "logging"};

// A source or header without its suffix: "sources/SystemQuery".
using Unit = std::string;

std::string textOf(const fs::path& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The lines of the picture: who -> whom, where each is a room or one unit of a room.
std::map<std::string, std::set<std::string>> readPicture() {
  std::map<std::string, std::set<std::string>> picture;
  std::istringstream text(textOf(kSource / "docs/architecture.md"));
  bool inside = false;
  for (std::string line; std::getline(text, line);) {
    if (line.rfind("```", 0) == 0) {
      inside = line == "```include-picture";
      continue;
    }
    if (!inside || line.empty()) {
      continue;
    }
    std::istringstream words(line);
    std::string from;
    std::string arrow;
    words >> from >> arrow;
    EXPECT_EQ(arrow, "->") << line;
    for (std::string to; words >> to;) {
      picture[from].insert(to);
    }
  }
  return picture;
}

Unit unitOf(const fs::path& path) {
  return (path.parent_path() / path.stem()).generic_string();
}

struct Include {
  std::string file;  // "sources/SystemQuery.cpp"
  Unit from;
  Unit to;
};

std::vector<Include> productIncludes() {
  std::vector<Include> includes;
  for (const std::string& room : kRooms) {
    for (const auto& entry : fs::directory_iterator(kSource / room)) {
      const fs::path relative = fs::relative(entry.path(), kSource);
      std::istringstream text(textOf(entry.path()));
      for (std::string line; std::getline(text, line);) {
        constexpr char kPrefix[] = "#include \"";
        if (line.rfind(kPrefix, 0) != 0) {
          continue;
        }
        const std::string target =
            line.substr(sizeof(kPrefix) - 1, line.rfind('"') - (sizeof(kPrefix) - 1));
        includes.push_back({relative.generic_string(), unitOf(relative), unitOf(target)});
      }
    }
  }
  return includes;
}

std::string roomOf(const Unit& unit) {
  return unit.substr(0, unit.find('/'));
}

TEST(IncludePicture, IsTold) {
  EXPECT_THAT(readPicture(), testing::SizeIs(testing::Ge(5U)));
  EXPECT_THAT(productIncludes(), testing::SizeIs(testing::Ge(20U)));
}

TEST(IncludePicture, EveryArrowOfTheCodeIsInThePicture) {
  const auto picture = readPicture();
  for (const Include& include : productIncludes()) {
    // The line that names the unit wins over the line of its room.
    auto allowed = picture.find(include.from);
    if (allowed == picture.end()) {
      allowed = picture.find(roomOf(include.from));
    }
    ASSERT_NE(allowed, picture.end()) << include.file << " is in no room of the picture";
    EXPECT_TRUE(allowed->second.contains(include.to) ||
                allowed->second.contains(roomOf(include.to)) || include.from == include.to)
        << include.file << " includes " << include.to << ", which is not in the picture";
  }
}

TEST(IncludePicture, HasNoCycles) {
  std::map<Unit, std::set<Unit>> graph;
  for (const Include& include : productIncludes()) {
    if (include.file.ends_with(".h")) {
      graph[include.from].insert(include.to);
    }
  }
  // Takes away headers that include nothing any more; what is left lies on a cycle.
  for (bool changed = true; changed;) {
    changed = false;
    for (auto unit = graph.begin(); unit != graph.end();) {
      std::erase_if(unit->second, [&](const Unit& to) { return !graph.contains(to); });
      if (unit->second.empty()) {
        unit = graph.erase(unit);
        changed = true;
      } else {
        ++unit;
      }
    }
  }
  EXPECT_THAT(graph, testing::IsEmpty());
}

TEST(IncludePicture, OneFileKnowsJni) {
  std::vector<std::string> files;
  for (const std::string& room : kRooms) {
    for (const auto& entry : fs::directory_iterator(kSource / room)) {
      if (textOf(entry.path()).find("jni.h") != std::string::npos) {
        files.push_back(fs::relative(entry.path(), kSource).generic_string());
      }
    }
  }
  EXPECT_THAT(files, testing::ElementsAre("gateway/MendLineNative.cpp"));
}

TEST(IncludePicture, BoostPropertyTreeIsTheOnlyThirdPartyCode) {
  for (const std::string& room : kRooms) {
    for (const auto& entry : fs::directory_iterator(kSource / room)) {
      std::istringstream text(textOf(entry.path()));
      for (std::string line; std::getline(text, line);) {
        if (line.rfind("#include <", 0) == 0 && line.find("boost/") != std::string::npos) {
          EXPECT_THAT(line, testing::HasSubstr("<boost/property_tree/")) << entry.path();
        }
      }
    }
  }
}

TEST(IncludePicture, HeadersStayContracts) {
  for (const std::string& room : kRooms) {
    for (const auto& entry : fs::directory_iterator(kSource / room)) {
      const std::string text = textOf(entry.path());
      const auto lines = std::count(text.begin(), text.end(), '\n');
      EXPECT_LE(lines, entry.path().extension() == ".h" ? 130 : 400) << entry.path();
    }
  }
}

TEST(IncludePicture, EveryPinnedTestIsNamedByATestFile) {
  std::string tests;
  for (const auto& entry : fs::recursive_directory_iterator(kSource / "tests")) {
    if (entry.path().extension() == ".cpp") {
      tests += textOf(entry.path());
    }
  }
  std::set<std::string> suites;
  for (const std::string& room : kRooms) {
    for (const auto& entry : fs::directory_iterator(kSource / room)) {
      std::string text = textOf(entry.path());
      // Comments are wrapped; the sentence is looked for in one line.
      for (std::size_t at = 0; (at = text.find("\n", at)) != std::string::npos;) {
        const std::size_t next = text.find_first_not_of(" /", at + 1);
        text.replace(at, next == std::string::npos ? text.size() - at : next - at, " ");
        ++at;
      }
      constexpr char kMark[] = "Pinned by ";
      for (std::size_t at = 0; (at = text.find(kMark, at)) != std::string::npos;) {
        at += sizeof(kMark) - 1;
        const std::string suite = text.substr(at, text.find('.', at) - at);
        suites.insert(suite);
        std::string name = text.substr(at + suite.size() + 1);
        name = name.substr(0, name.find_first_of(". "));
        name.erase(std::remove(name.begin(), name.end(), '*'), name.end());
        EXPECT_NE(tests.find("(" + suite + ", "), std::string::npos)
            << entry.path() << " says it is pinned by " << suite << ", which no test file has";
        EXPECT_NE(tests.find(name), std::string::npos)
            << entry.path() << " says it is pinned by " << suite << "." << name;
      }
    }
  }
  EXPECT_GE(suites.size(), 8U);
}

}  // namespace
}  // namespace mendline
