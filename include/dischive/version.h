// The library's version and the user agent built from it.
#pragma once

#include <string>

namespace dischive {

struct LibraryVersion {
  int major = 0;
  int minor = 0;
};

/// The library's version (major.minor), determined once and kept.
const LibraryVersion& GetLibraryVersion();

/// The agent text "DiscHive %d.%d" sent in HTTP requests, the freedb hello and
/// submitted entries.
std::string AgentText();

/// The full version text of this build ("1.0.0").
const char* VersionString();

}  // namespace dischive
