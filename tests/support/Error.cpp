#include "Error.h"

#include <cerrno>
#include <cstring>

namespace mendline::rig {

void throwErrno(const std::string& what) {
  throw Error(what + ": " + std::strerror(errno));
}

}  // namespace mendline::rig
