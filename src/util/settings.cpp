#include "dischive/settings.h"

#include "dischive/text.h"
#include "util/parse.h"
#include "util/xdg.h"

namespace dischive {

std::optional<int32_t> ParseSettingsInt(std::string_view text) {
  text = TrimBlanks(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::optional<uint64_t> value =
      hex ? ParseHex(text.substr(2), 0xFFFFFFFFull) : ParseDecimal(text, 0xFFFFFFFFull);
  if (!value) return std::nullopt;
  // Decimal values must fit a signed 32-bit integer; hexadecimal ones may use
  // all 32 bits (flags words such as 0x80000000 are stored that way).
  if (!hex && *value > (negative ? 0x80000000ull : 0x7FFFFFFFull)) return std::nullopt;
  const auto bits = static_cast<uint32_t>(*value);
  return static_cast<int32_t>(negative ? 0u - bits : bits);
}

int32_t SettingsStore::GetInt(std::string_view group, std::string_view key, int32_t def) const {
  const std::optional<std::string> text = Read(group, key);
  if (!text) return def;
  return ParseSettingsInt(*text).value_or(def);
}

std::string SettingsStore::GetString(std::string_view group, std::string_view key,
                                     std::string_view def) const {
  std::optional<std::string> text = Read(group, key);
  return text ? std::move(*text) : std::string(def);
}

bool SettingsStore::SetInt(std::string_view group, std::string_view key, int32_t value) {
  return Write(group, key, std::to_string(value));
}

bool SettingsStore::SetString(std::string_view group, std::string_view key,
                              std::string_view value) {
  return Write(group, key, value);
}

// ---------------------------------------------------------------------------

bool MemorySettingsStore::Less::operator()(std::string_view a, std::string_view b) const {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const char x = ToLowerAscii(a[i]);
    const char y = ToLowerAscii(b[i]);
    if (x != y) return x < y;
  }
  return a.size() < b.size();
}

std::optional<std::string> MemorySettingsStore::Read(std::string_view group,
                                                     std::string_view key) const {
  std::lock_guard lock(mutex_);
  const auto g = groups_.find(group);
  if (g == groups_.end()) return std::nullopt;
  const auto k = g->second.find(key);
  if (k == g->second.end()) return std::nullopt;
  return k->second;
}

bool MemorySettingsStore::Write(std::string_view group, std::string_view key,
                                std::string_view value) {
  std::lock_guard lock(mutex_);
  auto g = groups_.find(group);
  if (g == groups_.end()) g = groups_.emplace(std::string(group), decltype(g->second){}).first;
  g->second.insert_or_assign(std::string(key), std::string(value));
  return true;
}

bool MemorySettingsStore::Remove(std::string_view group, std::string_view key) {
  std::lock_guard lock(mutex_);
  const auto g = groups_.find(group);
  if (g == groups_.end()) return false;
  const auto k = g->second.find(key);
  if (k == g->second.end()) return false;
  g->second.erase(k);
  return true;
}

std::vector<std::string> MemorySettingsStore::Groups() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [name, values] : groups_) {
    if (!values.empty()) out.push_back(name);
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> MemorySettingsStore::Entries(
    std::string_view group) const {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, std::string>> out;
  const auto g = groups_.find(group);
  if (g != groups_.end()) out.assign(g->second.begin(), g->second.end());
  return out;
}

// ---------------------------------------------------------------------------

IniSettingsStore::IniSettingsStore(std::filesystem::path path, std::filesystem::path system_path)
    : path_(std::move(path)) {
  user_ = IniDocument::Load(path_, &last_error_);
  if (!system_path.empty()) system_ = IniDocument::Load(system_path);
}

std::optional<std::string> IniSettingsStore::Read(std::string_view group,
                                                  std::string_view key) const {
  std::lock_guard lock(mutex_);
  if (auto value = user_.Get(group, key)) return value;
  return system_.Get(group, key);
}

std::optional<std::string> IniSettingsStore::ReadSystem(std::string_view group,
                                                        std::string_view key) const {
  std::lock_guard lock(mutex_);
  return system_.Get(group, key);
}

bool IniSettingsStore::Write(std::string_view group, std::string_view key, std::string_view value) {
  std::lock_guard lock(mutex_);
  user_.Set(group, key, value);
  last_error_.clear();
  return user_.Save(path_, &last_error_);
}

bool IniSettingsStore::Remove(std::string_view group, std::string_view key) {
  std::lock_guard lock(mutex_);
  if (!user_.Remove(group, key)) return false;
  last_error_.clear();
  return user_.Save(path_, &last_error_);
}

std::vector<std::string> IniSettingsStore::Groups() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out = user_.Sections();
  for (const std::string& name : system_.Sections()) {
    bool seen = false;
    for (const std::string& n : out)
      seen = seen || EqualsIgnoreCase(n, name);
    if (!seen) out.push_back(name);
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> IniSettingsStore::Entries(
    std::string_view group) const {
  std::lock_guard lock(mutex_);
  auto out = user_.Entries(group);
  for (auto& entry : system_.Entries(group)) {
    bool seen = false;
    for (const auto& e : out)
      seen = seen || EqualsIgnoreCase(e.first, entry.first);
    if (!seen) out.push_back(std::move(entry));
  }
  return out;
}

std::string IniSettingsStore::last_error() const {
  std::lock_guard lock(mutex_);
  return last_error_;
}

// ---------------------------------------------------------------------------

std::optional<std::string> OverlaySettingsStore::Read(std::string_view group,
                                                      std::string_view key) const {
  if (auto value = overrides_.Read(group, key)) return value;
  return base_.Read(group, key);
}

bool OverlaySettingsStore::Write(std::string_view group, std::string_view key,
                                 std::string_view value) {
  overrides_.Remove(group, key);  // the written value is what later reads see
  return base_.Write(group, key, value);
}

bool OverlaySettingsStore::Remove(std::string_view group, std::string_view key) {
  const bool overridden = overrides_.Remove(group, key);
  return base_.Remove(group, key) || overridden;
}

std::vector<std::string> OverlaySettingsStore::Groups() const {
  std::vector<std::string> out = base_.Groups();
  for (const std::string& name : overrides_.Groups()) {
    bool seen = false;
    for (const std::string& n : out)
      seen = seen || EqualsIgnoreCase(n, name);
    if (!seen) out.push_back(name);
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> OverlaySettingsStore::Entries(
    std::string_view group) const {
  auto out = overrides_.Entries(group);
  for (auto& entry : base_.Entries(group)) {
    bool seen = false;
    for (const auto& e : out)
      seen = seen || EqualsIgnoreCase(e.first, entry.first);
    if (!seen) out.push_back(std::move(entry));
  }
  return out;
}

// ---------------------------------------------------------------------------

namespace {

std::mutex g_settings_mutex;
std::shared_ptr<SettingsStore> g_settings;

}  // namespace

std::filesystem::path DefaultSettingsPath() {
  return UserFolder(XdgHome::kConfig) / "dischive.ini";
}

std::filesystem::path SystemSettingsPath() {
  return SystemConfigFolder() / "dischive.ini";
}

std::shared_ptr<SettingsStore> GlobalSettings() {
  std::lock_guard lock(g_settings_mutex);
  if (!g_settings) {
    g_settings = std::make_shared<IniSettingsStore>(DefaultSettingsPath(), SystemSettingsPath());
  }
  return g_settings;
}

void SetGlobalSettings(std::shared_ptr<SettingsStore> store) {
  std::lock_guard lock(g_settings_mutex);
  g_settings = std::move(store);
}

}  // namespace dischive
