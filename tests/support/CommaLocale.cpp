#include "CommaLocale.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>

#include "Error.h"
#include "Program.h"

namespace mendline::rig {
namespace {

constexpr char kName[] = "de_DE.UTF-8";

}  // namespace

CommaLocale::CommaLocale() {
  std::string folder = std::filesystem::temp_directory_path() / "mendline-locale-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    throw Error("cannot make " + folder);
  }
  folder_ = folder;
  const Run run =
      Program({"localedef", "--no-archive", "-i", "de_DE", "-f", "UTF-8", folder_ + "/" + kName})
          .run();
  if (run.exitStatus != 0) {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
    throw Error("localedef: " + run.errors);
  }
  setenv("LOCPATH", folder_.c_str(), 1);
  setenv("LC_ALL", kName, 1);
}

CommaLocale::~CommaLocale() {
  unsetenv("LOCPATH");
  unsetenv("LC_ALL");
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

}  // namespace mendline::rig
