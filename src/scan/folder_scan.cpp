// Scanning folders into the catalogue: one folder becomes one album. The
// folder's start (its settings file), the decision against the catalogue and
// the write are here; choosing the record is in record_choice.cpp, building
// the album from the files in album_builder.cpp and the library scan in
// library_scan.cpp.
#include "dischive/folder_scan.h"

#include <fmt/format.h>
#include <fmt/printf.h>

#include <ctime>

#include "catalog/album_merge.h"
#include "dischive/ini.h"
#include "dischive/text.h"
#include "scan/folder_scan_internal.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

// Raised when the way folders are read changes, so that every folder is read
// again once.
constexpr uint32_t kScannerVersion = 1;

constexpr std::string_view kDefaultSection = "ScanOptions";

// Per-folder settings files larger than this are ignored.
constexpr uintmax_t kMaxSettingsBytes = 1u << 20;

}  // namespace

const char* FolderOutcomeName(FolderOutcome outcome) {
  switch (outcome) {
    case FolderOutcome::kNoFiles:
      return "empty";
    case FolderOutcome::kExcluded:
      return "excluded";
    case FolderOutcome::kAttached:
      return "attached";
    case FolderOutcome::kUnchanged:
      return "unchanged";
    case FolderOutcome::kAdded:
      return "added";
    case FolderOutcome::kUpdated:
      return "updated";
    case FolderOutcome::kFailed:
      return "failed";
  }
  return "unknown";
}

uint32_t ScanProfile(const FolderScanOptions& options) {
  uint32_t h = 2166136261u;
  auto add = [&h](std::string_view text) {
    for (char c : text)
      h = (h ^ static_cast<unsigned char>(ToLowerAscii(c))) * 16777619u;
    h = (h ^ 0u) * 16777619u;
  };
  for (const std::string& ext : options.extensions)
    add(ext);
  add("|");
  add(options.section);
  return kScannerVersion << 24 | (h & 0xFFFFFF);
}

FolderScanner::FolderScanner(CatalogEngine& catalog, FolderScanOptions options)
    : catalog_(catalog),
      options_(std::move(options)),
      profile_(ScanProfile(options_)),
      volumes_(std::make_unique<platform::RemovableVolumeFinder>()) {}

FolderScanner::~FolderScanner() = default;

void FolderScanner::Log(std::string_view line) {
  if (options_.log != nullptr) options_.log->Write(line);
}

detail::FolderStart detail::FolderScanSteps::Start(const FolderScanner& scanner,
                                                   const fs::path& folder,
                                                   const FolderListing& listing, ScanLog* log) {
  const FolderScanOptions& options = scanner.options_;
  detail::FolderStart start;
  auto write = [log](std::string_view line) {
    if (log != nullptr) log->Write(line);
  };
  FolderScanResult result;
  result.files = listing.files.size();
  if (listing.files.empty()) {
    start.done = result;
    return start;
  }
  if (log != nullptr) {
    log->Write(
        fmt::sprintf("Processing folder with %d files", static_cast<int>(listing.files.size())));
  }

  const std::string section =
      options.section.empty() ? std::string(kDefaultSection) : options.section;
  const fs::path settings_path =
      listing.settings_file ? *listing.settings_file : folder / detail::kSettingsFileName;
  IniDocument ini;
  if (!settings_path.empty()) {
    // A settings file holds a few lines; anything far larger is not one.
    std::error_code ec;
    const uintmax_t size = fs::file_size(settings_path, ec);
    if (!ec && size <= kMaxSettingsBytes) ini = IniDocument::Load(settings_path);
  }
  if (!options.forced && !options.ignore_exclusions) {
    auto excluded = [&ini](std::string_view s) {
      const std::optional<std::string> v = ini.Get(s, "Exclude");
      return v && ParseSettingsInt(*v).value_or(0) != 0;
    };
    if (excluded(kDefaultSection) || excluded(section)) {
      write("Folder excluded");
      result.outcome = FolderOutcome::kExcluded;
      start.done = result;
      return start;
    }
  }
  if (const std::optional<std::string> v = ini.Get(section, "ID"))
    start.attached = detail::ParseRecordId(*v);
  if (start.attached && (*start.attached & 0xFF) < 0x66) {
    write("Folder skipped due to attached record");
    result.outcome = FolderOutcome::kAttached;
    result.result = 1;
    result.record_id = *start.attached;
    start.done = result;
  }
  return start;
}

std::optional<VolumeScanState> detail::FolderScanSteps::Commit(
    FolderScanner& scanner, const fs::path& folder, const std::string& key,
    const FolderListing& listing, const RecordChoice& choice, InferredAlbum inferred,
    FolderScanResult& result) {
  CatalogEngine& catalog = scanner.catalog_;
  const FolderScanOptions& options = scanner.options_;
  const uint32_t flags = options.flags;
  const uint32_t id = choice.id;
  result.unreadable_files = inferred.unreadable;
  std::optional<std::string> album_id;
  if (choice.existing) album_id = catalog.FindAlbumOfVolume(id);
  AlbumRecord scanned = std::move(inferred.scanned);
  const std::string cover = std::move(inferred.cover);
  const std::string location = detail::RemovableMediaLocation(folder, *scanner.volumes_);
  if (location.empty()) {
    scanned.properties.Remove(field::kLocation);
  } else {
    scanned.properties.Set(field::kLocation, location);
  }
  VolumeRecord volume = std::move(inferred.volume);
  volume.record_id = id;
  // A volume new to the catalogue is created now; a rescanned one keeps its
  // creation and last-played times.
  volume.created = static_cast<uint32_t>(std::time(nullptr));

  const bool replace = options.forced ? (flags & scan_flags::kReplaceMode) != 0
                                      : !album_id || (flags & scan_flags::kNeverSkipUnchanged) != 0;
  std::optional<AlbumRecord> stored;
  if (album_id) stored = catalog.ReadAlbum(*album_id);
  const bool existed = stored.has_value();
  AlbumRecord record =
      catalog::RescanAlbum(std::move(stored), std::move(scanned), std::move(volume),
                           replace ? catalog::RescanMode::kReplace : catalog::RescanMode::kUpdate);

  if (HResult hr = catalog.WriteAlbum(record, WriteMode::kReplace)) {
    result.outcome = FolderOutcome::kFailed;
    result.error = hr;
    result.message = "cannot write the album: " + FormatErrorMessage(hr);
    scanner.Log("Folder failed: " + result.message);
    return std::nullopt;
  }
  if (!cover.empty()) {
    const std::optional<std::string> old_cover = catalog.ReadCover(id);
    if (!old_cover || *old_cover != cover) {
      if (HResult hr = catalog.WriteCover(id, cover)) {
        result.error = hr;
        result.message = "cannot store the cover: " + FormatErrorMessage(hr);
      }
    }
  }
  if (choice.remembered != id)
    catalog.SetDatabaseProperty(detail::kFolderIdGroup, key, fmt::format("{:08x}", id));

  result.outcome = existed ? FolderOutcome::kUpdated : FolderOutcome::kAdded;
  result.album_id = record.id;
  result.result = 1;
  scanner.Log("Folder finished");
  return VolumeScanState{id, key, listing.stamp, flags, scanner.profile_};
}

FolderScanResult detail::FolderScanSteps::DecideAndWrite(
    FolderScanner& scanner, const fs::path& folder, const std::string& key,
    const FolderListing& listing, const FolderStart& start, RecordLookup& lookup,
    const std::function<InferredAlbum()>& album) {
  FolderScanResult result;
  result.files = listing.files.size();
  try {
    const RecordChoice choice = Choose(key, listing, start.attached, lookup);
    result.record_id = choice.id;
    if (Unchanged(scanner, choice, listing)) {
      scanner.Log("Folder skipped due to existing record");
      result.outcome = FolderOutcome::kUnchanged;
      result.result = 1;
      return result;
    }
    if (const auto written = Commit(scanner, folder, key, listing, choice, album(), result))
      lookup.Written(key, *written);
  } catch (const FatalDatabaseError& e) {
    result.outcome = FolderOutcome::kFailed;
    result.error = kFail;
    result.message = e.what();
    scanner.Log(std::string("Folder failed: ") + e.what());
  }
  return result;
}

FolderScanResult FolderScanner::ScanFolder(const fs::path& folder, const fs::path& root) {
  FolderListing listing;
  EnumerateFolder(folder, options_.extensions, listing, options_.log, options_.on_error);
  return ScanFiles(folder, listing, root);
}

FolderScanResult FolderScanner::ScanFiles(const fs::path& folder, const FolderListing& listing,
                                          const fs::path& root) {
  using Steps = detail::FolderScanSteps;
  const detail::FolderStart start = Steps::Start(*this, folder, listing, options_.log);
  if (start.done) return *start.done;
  const std::string key = FolderKey(folder);
  detail::CatalogLookup lookup(catalog_);
  return Steps::DecideAndWrite(*this, folder, key, listing, start, lookup,
                               [&] { return Steps::Build(*this, folder, root, key, listing); });
}

}  // namespace dischive
