// Settings by group and key: the library's configuration store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dischive/ini.h"

namespace dischive {

/// Integer and string values by group and key. Values are stored as text; an
/// integer is its decimal form (reading also accepts "0x" hexadecimal).
class SettingsStore {
 public:
  virtual ~SettingsStore() = default;

  /// The stored text of a value, if present.
  virtual std::optional<std::string> Read(std::string_view group, std::string_view key) const = 0;
  virtual bool Write(std::string_view group, std::string_view key, std::string_view value) = 0;
  /// Removes a value; true when it existed.
  virtual bool Remove(std::string_view group, std::string_view key) = 0;
  virtual std::vector<std::string> Groups() const = 0;
  virtual std::vector<std::pair<std::string, std::string>> Entries(
      std::string_view group) const = 0;

  /// The value as an integer; `def` when absent or not a number.
  int32_t GetInt(std::string_view group, std::string_view key, int32_t def) const;
  /// The value as text; `def` when absent.
  std::string GetString(std::string_view group, std::string_view key, std::string_view def) const;
  bool SetInt(std::string_view group, std::string_view key, int32_t value);
  bool SetString(std::string_view group, std::string_view key, std::string_view value);
};

/// Parses a settings integer: optional sign, decimal or "0x" hexadecimal, white
/// space around it allowed; values beyond 32 bits wrap as the Windows profile
/// functions do not, so they are refused instead.
std::optional<int32_t> ParseSettingsInt(std::string_view text);

/// Settings kept in memory, for tests and for one-run overrides.
class MemorySettingsStore : public SettingsStore {
 public:
  std::optional<std::string> Read(std::string_view group, std::string_view key) const override;
  bool Write(std::string_view group, std::string_view key, std::string_view value) override;
  bool Remove(std::string_view group, std::string_view key) override;
  std::vector<std::string> Groups() const override;
  std::vector<std::pair<std::string, std::string>> Entries(std::string_view group) const override;

 private:
  struct Less {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
  };
  mutable std::mutex mutex_;
  std::map<std::string, std::map<std::string, std::string, Less>, Less> groups_;
};

/// Settings in an INI file (groups are sections). Every write saves the file at
/// once (atomically); reads see the file as loaded plus this store's writes.
/// An optional read-only second file (the system-wide scope) answers reads for
/// values the user's file does not hold.
class IniSettingsStore : public SettingsStore {
 public:
  explicit IniSettingsStore(std::filesystem::path path, std::filesystem::path system_path = {});

  std::optional<std::string> Read(std::string_view group, std::string_view key) const override;
  bool Write(std::string_view group, std::string_view key, std::string_view value) override;
  bool Remove(std::string_view group, std::string_view key) override;
  std::vector<std::string> Groups() const override;
  std::vector<std::pair<std::string, std::string>> Entries(std::string_view group) const override;

  /// A value from the system-wide file only (the "alternative scope").
  std::optional<std::string> ReadSystem(std::string_view group, std::string_view key) const;
  const std::filesystem::path& path() const { return path_; }
  /// The error of the last failed load or save, empty when none.
  std::string last_error() const;

 private:
  std::filesystem::path path_;
  mutable std::mutex mutex_;
  IniDocument user_;
  IniDocument system_;
  std::string last_error_;
};

/// Reads from `overrides` first and from `base` otherwise; writes and removals
/// go to `base`. Used for "--set group.key=value" on one run.
class OverlaySettingsStore : public SettingsStore {
 public:
  OverlaySettingsStore(SettingsStore& base, SettingsStore& overrides)
      : base_(base), overrides_(overrides) {}
  std::optional<std::string> Read(std::string_view group, std::string_view key) const override;
  bool Write(std::string_view group, std::string_view key, std::string_view value) override;
  bool Remove(std::string_view group, std::string_view key) override;
  std::vector<std::string> Groups() const override;
  std::vector<std::pair<std::string, std::string>> Entries(std::string_view group) const override;

 private:
  SettingsStore& base_;
  SettingsStore& overrides_;
};

/// $XDG_CONFIG_HOME/dischive/dischive.ini (default ~/.config).
std::filesystem::path DefaultSettingsPath();
/// /etc/xdg/dischive/dischive.ini (first entry of $XDG_CONFIG_DIRS when set).
std::filesystem::path SystemSettingsPath();

/// The process-wide store the library reads its settings from. Until a host sets
/// one, an IniSettingsStore on the default paths is created on first use. The
/// shared pointer keeps the store alive while a caller uses it, even when the
/// host replaces it meanwhile.
std::shared_ptr<SettingsStore> GlobalSettings();
/// Replaces the process-wide store (nullptr restores the default file store).
void SetGlobalSettings(std::shared_ptr<SettingsStore> store);

}  // namespace dischive
