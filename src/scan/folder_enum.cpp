// Enumeration of one folder, its scan stamp and record id, and the scan log.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "dischive/errors.h"
#include "dischive/folder_scan.h"
#include "dischive/text.h"
#include "platform/file_find.h"
#include "scan/folder_scan_internal.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

// Windows error numbers, as the find calls report them.
constexpr uint32_t kErrorPathNotFound = 3;

using detail::kSettingsFileName;
using detail::ScanEntry;

// Files that are not scanned but belong to the folder's byte total.
constexpr std::string_view kSideExtensions[] = {"txt", "jpg", "jpeg", "png", "bmp"};

uint32_t FindErrorFromErrno(int err) {
  if (err == ENOENT) return kErrorPathNotFound;  // the folder itself is missing
  return HResultFromErrno(err) & 0xFFFF;
}

bool MatchesExtension(std::string_view name, std::string_view ext) {
  return name.size() > ext.size() + 1 && name[name.size() - ext.size() - 1] == '.' &&
         EndsWithIgnoreCase(name, ext);
}

// Whether a scan of the folder looks at a file of this name: a media or side
// file (its size and time count) or the folder's settings file.
bool ScanUses(std::string_view name, const std::vector<std::string>& extensions) {
  if (name.empty() || name[0] == '.') return false;
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  if (EqualsIgnoreCase(name, kSettingsFileName)) return true;
  auto matches = [&](std::string_view ext) { return !ext.empty() && MatchesExtension(name, ext); };
  return std::any_of(extensions.begin(), extensions.end(), matches) ||
         std::any_of(std::begin(kSideExtensions), std::end(kSideExtensions), matches);
}

// FNV-1a, 32 bits.
struct Fnv {
  uint32_t h = 2166136261u;
  void Add(const void* data, size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i)
      h = (h ^ p[i]) * 16777619u;
  }
  void AddU64(uint64_t v) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i)
      bytes[i] = static_cast<unsigned char>(v >> (8 * i));
    Add(bytes, 8);
  }
  void AddText(std::string_view text) {
    Add(text.data(), text.size());
    const unsigned char end = 0;
    Add(&end, 1);
  }
};

void AddToStamp(Fnv& fnv, const detail::ScanEntry& e) {
  fnv.AddText(e.name);
  fnv.AddU64(e.size);
  int64_t sec = e.mtime_ns / 1000000000;
  int64_t nsec = e.mtime_ns % 1000000000;
  if (nsec < 0) {
    nsec += 1000000000;
    --sec;
  }
  fnv.AddU64(static_cast<uint64_t>(sec));
  fnv.AddU64(static_cast<uint64_t>(nsec));
}

}  // namespace

// ScanLog ---------------------------------------------------------------------

struct ScanLog::File {
  std::FILE* file = nullptr;
  ~File() {
    if (file != nullptr) std::fclose(file);
  }
};

ScanLog::ScanLog(const fs::path& path) : file_(std::make_unique<File>()) {
  std::error_code ec;
  if (path.has_parent_path()) fs::create_directories(path.parent_path(), ec);
  file_->file = std::fopen(path.c_str(), "ab");
}

ScanLog::ScanLog(std::function<void(std::string_view)> sink) : sink_(std::move(sink)) {}

ScanLog::~ScanLog() = default;

bool ScanLog::is_open() const {
  return sink_ ? true : file_ != nullptr && file_->file != nullptr;
}

void ScanLog::Write(std::string_view line) {
  if (sink_) {
    sink_(line);
    return;
  }
  if (file_ == nullptr || file_->file == nullptr) return;
  std::fwrite(line.data(), 1, line.size(), file_->file);
  std::fputc('\n', file_->file);
}

void ScanLog::Flush() {
  if (file_ != nullptr && file_->file != nullptr) std::fflush(file_->file);
}

// Enumeration --------------------------------------------------------------

namespace detail {

bool NameLess(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const auto ca = static_cast<unsigned char>(ToLowerAscii(a[i]));
    const auto cb = static_cast<unsigned char>(ToLowerAscii(b[i]));
    if (ca != cb) return ca < cb;
  }
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

FolderContents ReadFolderContents(const fs::path& folder,
                                  const std::vector<std::string>& extensions) {
  FolderContents contents;
  std::vector<platform::FolderEntry> listed;
  const auto uses = [&extensions](std::string_view name) { return ScanUses(name, extensions); };
  if (const int err = platform::ListFolder(folder, listed, uses); err != 0) {
    contents.error = FindErrorFromErrno(err);
    return contents;
  }
  for (platform::FolderEntry& e : listed) {
    if (e.name.empty() || e.name[0] == '.') continue;
    if (e.is_directory && !e.is_symlink) {
      contents.subfolders.push_back(std::move(e.name));
    } else if (e.is_regular && uses(e.name)) {
      contents.files.push_back({std::move(e.name), e.size, e.mtime_ns});
    }
  }
  std::sort(contents.files.begin(), contents.files.end(),
            [](const ScanEntry& a, const ScanEntry& b) { return NameLess(a.name, b.name); });
  std::sort(contents.subfolders.begin(), contents.subfolders.end(), NameLess);
  return contents;
}

bool ListingFromContents(const fs::path& folder, const std::vector<std::string>& extensions,
                         const FolderContents& contents, FolderListing& listing, ScanLog* log,
                         const FolderErrorCallback& on_error, bool with_paths) {
  listing = FolderListing{};
  const uint32_t read_error = contents.error;
  const std::vector<ScanEntry>& entries = contents.files;
  // One text for the folder's path with a separator, to which names are
  // appended: far cheaper than joining paths component by component.
  std::string prefix = folder.string();
  if (!prefix.empty() && prefix.back() != '/') prefix += '/';

  Fnv stamp;
  uint32_t first_error = 0;
  std::vector<std::string_view> seen;  // an extension named twice is searched once
  for (const std::string& ext : extensions) {
    if (ext.empty() || std::any_of(seen.begin(), seen.end(),
                                   [&](std::string_view s) { return EqualsIgnoreCase(s, ext); })) {
      continue;
    }
    seen.push_back(ext);
    if (log != nullptr) log->Write(prefix + "*." + ext);
    size_t found = 0;
    for (const ScanEntry& e : entries) {
      if (!MatchesExtension(e.name, ext)) continue;
      FolderFile file;
      if (with_paths) file.path = prefix + e.name;
      file.name = e.name;
      file.short_name = e.name;  // POSIX file systems keep no 8.3 names
      file.size = e.size;
      file.mtime_sec = e.mtime_ns / 1000000000;
      file.mtime_nsec = e.mtime_ns % 1000000000;
      listing.files.push_back(std::move(file));
      listing.byte_total += e.size;
      AddToStamp(stamp, e);
      ++found;
    }
    if (found == 0) {
      const uint32_t error = read_error != 0 ? read_error : kErrorFileNotFound;
      if (log != nullptr) {
        log->Write("FindFirstFile returned INVALID_HANDLE_VALUE");
        log->Write(fmt::format("GetLastError = {:08x}", error));
      }
      if (first_error == 0 && error != kErrorFileNotFound) first_error = error;
    }
  }
  if (listing.files.empty() && first_error != 0 && on_error) on_error(folder, first_error);

  if (read_error == 0) {
    listing.settings_file = fs::path();
    for (const ScanEntry& e : entries) {
      if (EqualsIgnoreCase(e.name, kSettingsFileName)) {
        listing.settings_file = prefix + e.name;
        break;
      }
    }
  }
  for (const ScanEntry& e : entries) {
    const size_t dot = e.name.rfind('.');
    if (dot == std::string::npos) continue;
    const std::string_view stem = std::string_view(e.name).substr(0, dot);
    const std::string_view ext = std::string_view(e.name).substr(dot + 1);
    if ((EqualsIgnoreCase(stem, "cover") || EqualsIgnoreCase(stem, "folder") ||
         EqualsIgnoreCase(stem, "front")) &&
        (EqualsIgnoreCase(ext, "jpg") || EqualsIgnoreCase(ext, "jpeg") ||
         EqualsIgnoreCase(ext, "png"))) {
      listing.cover_file = prefix + e.name;
      break;
    }
  }

  for (std::string_view ext : kSideExtensions) {
    if (std::any_of(seen.begin(), seen.end(),
                    [&](std::string_view s) { return EqualsIgnoreCase(s, ext); })) {
      continue;  // already counted as a media extension
    }
    for (const ScanEntry& e : entries) {
      if (!MatchesExtension(e.name, ext)) continue;
      listing.byte_total += e.size;
      AddToStamp(stamp, e);
    }
  }
  listing.stamp = stamp.h;
  return !listing.files.empty();
}

}  // namespace detail

bool EnumerateFolder(const fs::path& folder, const std::vector<std::string>& extensions,
                     FolderListing& listing, ScanLog* log, const FolderErrorCallback& on_error) {
  return detail::ListingFromContents(
      folder, extensions, detail::ReadFolderContents(folder, extensions), listing, log, on_error);
}

uint32_t FolderRecordId(const FolderListing& listing) {
  uint64_t offset = 0;
  uint32_t checksum = 0;
  for (const FolderFile& file : listing.files) {
    offset += file.size;
    checksum += static_cast<uint32_t>(offset) + static_cast<uint32_t>(offset >> 32);
  }
  const uint32_t count = static_cast<uint32_t>(std::min<size_t>(listing.files.size(), 99));
  return (checksum % 255) << 24 | static_cast<uint32_t>(listing.byte_total << 8) | (count + 0x65);
}

}  // namespace dischive
