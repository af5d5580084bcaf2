// The per-user folders of the XDG base directory convention.
#pragma once

#include <filesystem>

namespace dischive {

enum class XdgHome {
  kConfig,  ///< $XDG_CONFIG_HOME, default ~/.config
  kCache,   ///< $XDG_CACHE_HOME, default ~/.cache
  kData,    ///< $XDG_DATA_HOME, default ~/.local/share
};

/// The user's folder of that kind, with "dischive" appended. A variable that
/// is unset or not an absolute path counts as unset; without a usable $HOME
/// the temporary folder stands in for the home folder's default.
std::filesystem::path UserFolder(XdgHome kind);

/// The first system configuration folder ($XDG_CONFIG_DIRS, default
/// /etc/xdg), with "dischive" appended.
std::filesystem::path SystemConfigFolder();

}  // namespace dischive
