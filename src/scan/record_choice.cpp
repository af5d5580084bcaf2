// Choosing the record a scanned folder belongs to, and the test that finds a
// folder unchanged since its last scan.
#include <algorithm>
#include <cctype>

#include "dischive/folder_scan.h"
#include "scan/folder_scan_internal.h"
#include "util/parse.h"

namespace dischive::detail {
namespace {

namespace fs = std::filesystem;

}  // namespace

std::optional<uint32_t> ParseRecordId(std::string_view text) {
  text = text.substr(0, 31);
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    text.remove_prefix(2);
  uint32_t value = 0;
  size_t digits = 0;
  for (; digits < text.size() && digits < 8; ++digits) {
    const int v = HexDigitValue(text[digits]);
    if (v < 0) break;
    value = value << 4 | static_cast<uint32_t>(v);
  }
  if (digits == 0) return std::nullopt;
  return value;
}

std::optional<uint32_t> CatalogLookup::RememberedId(const std::string& key) {
  const std::optional<std::string> value = catalog_.GetDatabaseProperty(kFolderIdGroup, key);
  return value ? ParseRecordId(*value) : std::nullopt;
}

std::optional<VolumeScanState> CatalogLookup::State(uint32_t id) {
  return catalog_.ReadVolumeScanState(id);
}

bool CatalogLookup::FolderExists(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

RecordChoice FolderScanSteps::Choose(const std::string& key, const FolderListing& listing,
                                     std::optional<uint32_t> attached, RecordLookup& lookup) {
  RecordChoice choice;
  if (attached) {
    choice.id = *attached;
    choice.existing = lookup.State(choice.id);
    return choice;
  }
  choice.remembered = lookup.RememberedId(key);
  if (choice.remembered) {
    // Only while the record still belongs to this folder: a deleted album's
    // id may since have gone to another folder.
    std::optional<VolumeScanState> state = lookup.State(*choice.remembered);
    if (state && state->folder == key) {
      choice.id = *choice.remembered;
      choice.existing = std::move(state);
      return choice;
    }
  }
  // Two folders whose files have the same sizes compute the same id; the
  // record stays with the folder that still exists, and this one takes the
  // next free checksum byte.
  choice.id = FolderRecordId(listing);
  for (int attempt = 0; attempt < 255; ++attempt) {
    std::optional<VolumeScanState> state = lookup.State(choice.id);
    if (!state) break;
    if (state->folder.empty() || state->folder == key || !lookup.FolderExists(state->folder)) {
      choice.existing = std::move(state);
      break;
    }
    choice.id = (((choice.id >> 24) + 1) % 255) << 24 | (choice.id & 0x00FFFFFF);
  }
  return choice;
}

bool FolderScanSteps::Unchanged(const FolderScanner& scanner, const RecordChoice& choice,
                                const FolderListing& listing) {
  const uint32_t flags = scanner.options_.flags;
  if (!choice.existing || (flags & scan_flags::kNeverSkipUnchanged) != 0) return false;
  const VolumeScanState& state = *choice.existing;
  return state.stamp == listing.stamp && state.flags &&
         (*state.flags & kScanFlagsCompareMask) == (flags & kScanFlagsCompareMask) &&
         state.profile == scanner.profile_;
}

}  // namespace dischive::detail
