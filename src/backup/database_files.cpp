#include "dischive/database_files.h"

#include <system_error>

#include "dischive/text.h"
#include "platform/file_lock.h"
#include "util/xdg.h"

namespace dischive {
namespace {

// Removes "." and ".." parts and a trailing separator without touching the disk.
std::string NormalPath(const std::filesystem::path& path) {
  std::filesystem::path p = path.lexically_normal();
  if (!p.has_filename() && p.has_parent_path() && p != p.root_path()) p = p.parent_path();
  return p.string();
}

// The system-wide settings file alone: the "alternative scope" that answers
// the second reading of the default database.
class SystemScope : public MemorySettingsStore {
 public:
  SystemScope() : store_({}, SystemSettingsPath()) {}
  std::optional<std::string> Read(std::string_view group, std::string_view key) const override {
    return store_.ReadSystem(group, key);
  }

 private:
  IniSettingsStore store_;
};

}  // namespace

std::string DefaultDatabase(const SettingsStore& settings, const SettingsStore* alternative) {
  std::string value = settings.GetString(kDefaultDatabaseGroup, kDefaultDatabaseKey, "");
  if (value.empty() && alternative != nullptr) {
    value = alternative->GetString(kDefaultDatabaseGroup, kDefaultDatabaseKey, "");
  }
  return value;
}

std::string DefaultDatabase() {
  const SystemScope alternative;
  return DefaultDatabase(*GlobalSettings(), &alternative);
}

std::filesystem::path DefaultDatabasePath(const SettingsStore* settings) {
  const std::string configured =
      settings != nullptr ? DefaultDatabase(*settings, nullptr) : std::string();
  if (!configured.empty()) return configured;
  const std::string system = DefaultDatabase();
  if (!system.empty()) return system;
  return UserFolder(XdgHome::kData) / (std::string("Catalogue") + kDatabaseExtension);
}

bool IsDefaultDatabase(const std::filesystem::path& path, const SettingsStore& settings,
                       const SettingsStore* alternative) {
  const std::string configured = DefaultDatabase(settings, alternative);
  if (configured.empty() || path.empty()) return false;
  if (EqualsIgnoreCase(NormalPath(configured), NormalPath(path))) return true;
  std::error_code ec1, ec2;
  const auto a = std::filesystem::canonical(configured, ec1);
  const auto b = std::filesystem::canonical(path, ec2);
  return !ec1 && !ec2 && EqualsIgnoreCase(a.string(), b.string());
}

bool IsDefaultDatabase(const std::filesystem::path& path) {
  const SystemScope alternative;
  return IsDefaultDatabase(path, *GlobalSettings(), &alternative);
}

std::vector<std::filesystem::path> ApplicationFolders(const SettingsStore& settings) {
  std::vector<std::filesystem::path> folders;
  if (std::filesystem::path exe = platform::ExecutableFolder(); !exe.empty()) {
    folders.push_back(std::move(exe));
  }
  const std::string data = settings.GetString(kDefaultDatabaseGroup, kDataFolderKey, "");
  if (!data.empty()) folders.emplace_back(data);
  return folders;
}

bool IsSampleDatabase(const std::filesystem::path& path,
                      const std::vector<std::filesystem::path>& folders) {
  std::error_code ec;
  const std::filesystem::path resolved = std::filesystem::canonical(path, ec);
  if (ec) return false;
  for (const std::filesystem::path& folder : folders) {
    const std::filesystem::path base = std::filesystem::canonical(folder, ec);
    if (ec) continue;
    if (EqualsIgnoreCase(resolved.string(), (base / kSampleDatabaseName).string())) return true;
  }
  return false;
}

bool IsSampleDatabase(const std::filesystem::path& path) {
  return IsSampleDatabase(path, ApplicationFolders(*GlobalSettings()));
}

}  // namespace dischive
