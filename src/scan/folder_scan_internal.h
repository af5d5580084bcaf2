// Parts of the folder scan shared between its source files.
#pragma once

#include <filesystem>
#include <string>

#include "platform/removable_media.h"

namespace dischive::detail {

/// RemovableMediaLocation with a finder that keeps the mount table between
/// calls.
std::string RemovableMediaLocation(const std::filesystem::path& path,
                                   platform::RemovableVolumeFinder& finder);

}  // namespace dischive::detail
