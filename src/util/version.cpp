#include "dischive/version.h"

#include <fmt/printf.h>

#include "build_info.h"

namespace dischive {

const LibraryVersion& GetLibraryVersion() {
  static const LibraryVersion version{DISCHIVE_VERSION_MAJOR, DISCHIVE_VERSION_MINOR};
  return version;
}

std::string AgentText() {
  const LibraryVersion& v = GetLibraryVersion();
  return fmt::sprintf("DiscHive %d.%d", v.major, v.minor);
}

const char* VersionString() {
  return DISCHIVE_VERSION_STRING;
}

}  // namespace dischive
