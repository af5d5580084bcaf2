#include "util/xdg.h"

#include <cstdlib>
#include <string_view>
#include <system_error>

namespace dischive {
namespace {

namespace fs = std::filesystem;

// An environment variable holding an absolute path, or an empty path.
fs::path AbsoluteEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? fs::path(value) : fs::path();
}

}  // namespace

fs::path UserFolder(XdgHome kind) {
  const char* variable = kind == XdgHome::kConfig  ? "XDG_CONFIG_HOME"
                         : kind == XdgHome::kCache ? "XDG_CACHE_HOME"
                                                   : "XDG_DATA_HOME";
  fs::path base = AbsoluteEnv(variable);
  if (base.empty()) {
    const fs::path home = AbsoluteEnv("HOME");
    if (home.empty()) {
      std::error_code ec;
      base = fs::temp_directory_path(ec);
      if (ec) base = "/tmp";
    } else {
      base = kind == XdgHome::kConfig  ? home / ".config"
             : kind == XdgHome::kCache ? home / ".cache"
                                       : home / ".local" / "share";
    }
  }
  return base / "dischive";
}

fs::path SystemConfigFolder() {
  fs::path base = "/etc/xdg";
  if (const char* dirs = std::getenv("XDG_CONFIG_DIRS"); dirs != nullptr && dirs[0] == '/') {
    const std::string_view list(dirs);
    base = fs::path(list.substr(0, list.find(':')));
  }
  return base / "dischive";
}

}  // namespace dischive
