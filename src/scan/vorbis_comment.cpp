// Vorbis comments, shared by FLAC (VORBIS_COMMENT block) and Ogg Vorbis
// (comment header). Layout (all lengths 32-bit little-endian):
//   vendor length, vendor string, comment count,
//   count × (comment length, "NAME=value" in UTF-8)
#include "dischive/text.h"
#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

// A FLAC comment block's vendor string and comments are each below 1 MiB.
constexpr uint32_t kMaxFlacCommentLength = 1u << 20;

enum class Action {
  kTitle,
  kAlbum,
  kTrack,
  kArtist,
  kArtistSort,
  kPerformer,
  kDescription,
  kGenre,
  kDate,
  kComment,
  kComposer,
  kBpm,
  kConductor,
  kLyricist,
  kLabel,
  kLyrics,
  kDisc,
  kIgnore,
};

struct FieldRule {
  std::string_view name;
  Action action;
};

constexpr FieldRule kFieldRules[] = {
    {"TITLE", Action::kTitle},
    {"ALBUM", Action::kAlbum},
    {"TRACKNUMBER", Action::kTrack},
    {"ARTIST", Action::kArtist},
    {"ARTISTSORT", Action::kArtistSort},
    {"PERFORMER", Action::kPerformer},
    {"DESCRIPTION", Action::kDescription},
    {"GENRE", Action::kGenre},
    {"DATE", Action::kDate},
    {"COMMENT", Action::kComment},
    {"COMPOSER", Action::kComposer},
    {"BPM", Action::kBpm},
    {"CONDUCTOR", Action::kConductor},
    {"LYRICIST", Action::kLyricist},
    {"LABEL", Action::kLabel},
    {"ORGANIZATION", Action::kLabel},
    {"LYRICS", Action::kLyrics},
    {"DISCNUMBER", Action::kDisc},
    // Recognised and deliberately ignored.
    {"LOCATION", Action::kIgnore},
};

}  // namespace

void MapVorbisField(std::string_view comment, MediaFileTags& tags, bool convert) {
  // The name is ASCII, so only the value needs converting; blanks are the
  // same bytes before and after conversion.
  const size_t eq = comment.find('=');
  if (eq == std::string_view::npos || eq == 0) return;
  const std::string_view name = comment.substr(0, eq);
  const std::string_view raw_value = TrimBlanks(comment.substr(eq + 1));
  if (raw_value.empty()) return;

  // Upper-case the name once (no name of the table is longer than 12).
  char upper[12];
  if (name.size() > sizeof upper) return;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    upper[i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  const std::string_view key(upper, name.size());
  const FieldRule* rule = nullptr;
  for (const FieldRule& r : kFieldRules) {
    if (r.name == key) {
      rule = &r;
      break;
    }
  }
  if (rule == nullptr || rule->action == Action::kIgnore) return;
  std::string value = detail::TagTextToUtf8(raw_value, convert);

  switch (rule->action) {
    case Action::kTitle:
      tags.title = std::move(value);
      break;
    case Action::kAlbum:
      tags.album = std::move(value);
      break;
    case Action::kTrack: {
      const int32_t n = detail::ParseLeadingInt(value);
      tags.trackNumber = n >= 1 && n <= 1023 ? n : -1;
      break;
    }
    case Action::kArtist:
      if (tags.artist.empty()) {
        tags.artist = std::move(value);
      } else {
        tags.artist += ", ";
        tags.artist += value;
      }
      break;
    case Action::kArtistSort:
      // A second sort name makes the sort order ambiguous: keep none.
      if (tags.artistSort.empty()) {
        tags.artistSort = std::move(value);
      } else {
        tags.artistSort.clear();
      }
      break;
    case Action::kPerformer:
      tags.performer = std::move(value);
      break;
    case Action::kDescription:
    case Action::kComment:
      if (tags.comment.empty()) tags.comment = std::move(value);
      break;
    case Action::kGenre:
      tags.genre = std::move(value);
      break;
    case Action::kDate:
      tags.year = std::move(value);
      break;
    case Action::kComposer:
      tags.composer = std::move(value);
      break;
    case Action::kBpm: {
      const int32_t n = detail::ParseLeadingInt(value);
      tags.bpm = n < 0 ? 0 : n;
      break;
    }
    case Action::kConductor:
      tags.conductor = std::move(value);
      break;
    case Action::kLyricist:
      tags.lyricist = std::move(value);
      break;
    case Action::kLabel:
      tags.label = std::move(value);
      break;
    case Action::kLyrics:
      tags.lyrics = std::move(value);
      break;
    case Action::kDisc: {
      const int32_t n = detail::ParseLeadingInt(value);
      tags.discNumber = n < 1 ? -1 : n;
      break;
    }
    case Action::kIgnore:
      break;
  }
}

bool ParseVorbisComment(std::span<const uint8_t> block, MediaFileTags& tags, bool convert) {
  detail::ByteCursor in(block);
  uint32_t vendor_length = 0;
  if (!in.Le32(vendor_length) || vendor_length >= kMaxFlacCommentLength ||
      !in.Skip(vendor_length)) {
    return false;
  }
  uint32_t count = 0;
  if (!in.Le32(count)) return false;
  // Every comment needs at least its 4-byte length.
  if (count > in.remaining() / 4) count = static_cast<uint32_t>(in.remaining() / 4);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t length = 0;
    std::span<const uint8_t> text;
    if (!in.Le32(length) || length >= kMaxFlacCommentLength || !in.Bytes(length, text)) {
      return false;
    }
    MapVorbisField(detail::AsText(text), tags, convert);
  }
  return true;
}

}  // namespace dischive
