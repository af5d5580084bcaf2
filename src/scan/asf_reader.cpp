// ASF (WMA) header objects, read the way the Windows Media editor presents
// them as attributes. Every object starts with a GUID and a 64-bit size
// (both little-endian, the size counting these 24 bytes). The header object
// holds a 32-bit object count and two reserved bytes, then the objects:
//   file properties: file id, file size, creation date, packet count,
//     play duration, send duration (100 ns units), preroll (ms), flags,
//     minimum and maximum packet size, maximum bit rate (bit/s)
//   content description: five 16-bit lengths, then title, author,
//     copyright, description and rating in UTF-16LE
//   extended content description: a 16-bit count of (name length, name,
//     value type, value length, value)
#include <cstring>

#include "dischive/text.h"
#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

using Guid = uint8_t[16];

constexpr Guid kHeaderObject = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kFileProperties = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                  0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kContentDescription = {0x33, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                      0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kExtendedContentDescription = {0x40, 0xA4, 0xD0, 0xD2, 0x07, 0xE3, 0xD2, 0x11,
                                              0x97, 0xF0, 0x00, 0xA0, 0xC9, 0x5E, 0xA8, 0x50};
constexpr Guid kHeaderExtension = {0xB5, 0x03, 0xBF, 0x5F, 0x2E, 0xA9, 0xCF, 0x11,
                                   0x8E, 0xE3, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kMetadataLibrary = {0x94, 0x1C, 0x23, 0x44, 0x98, 0x94, 0xD1, 0x49,
                                   0xA1, 0x41, 0x1D, 0x13, 0x4E, 0x45, 0x70, 0x54};
constexpr Guid kMetadata = {0xEA, 0xCB, 0xF8, 0xC5, 0xAF, 0x5B, 0x77, 0x48,
                            0x84, 0x67, 0xAA, 0x8C, 0x44, 0xFA, 0x4C, 0xCA};

// Headers with embedded pictures run to a few MiB; anything larger is not
// an audio file's header.
constexpr uint64_t kMaxHeaderSize = 32u << 20;
constexpr size_t kObjectHeaderSize = 24;

enum ValueType : uint32_t { kString = 0, kBytes = 1, kBool = 2, kDword = 3, kQword = 4, kWord = 5 };

bool IsGuid(std::span<const uint8_t> bytes, const Guid& guid) {
  return bytes.size() >= 16 && std::memcmp(bytes.data(), guid, 16) == 0;
}

// UTF-16LE text without its terminating NUL characters.
std::string WideText(std::span<const uint8_t> bytes) {
  std::string text =
      detail::Utf16Text(bytes.first(bytes.size() & ~size_t{1}), ByteOrder::kLittleEndian);
  while (!text.empty() && text.back() == '\0')
    text.pop_back();
  return text;
}

struct AsfState {
  MediaFileTags& tags;
  CoverPicture* picture;
  bool have_track_number = false;  // WM/TrackNumber wins over WM/Track
};

// A numeric attribute, whether stored as a number or as text.
bool NumberValue(uint32_t type, std::span<const uint8_t> value, uint64_t& number) {
  switch (type) {
    case kString: {
      const int32_t n = detail::ParseLeadingInt(WideText(value));
      number = static_cast<uint64_t>(static_cast<int64_t>(n));
      return n >= 0;
    }
    case kBool:
    case kDword:
      if (value.size() < 4) return false;
      number = detail::Le32(value.data());
      return true;
    case kQword:
      if (value.size() < 8) return false;
      number = detail::Le64(value.data());
      return true;
    case kWord:
      if (value.size() < 2) return false;
      number = detail::Le16(value.data());
      return true;
    default:
      return false;
  }
}

// WM/Picture: picture type, 32-bit data length, MIME type and description
// (UTF-16LE, NUL-terminated), data.
void ReadPicture(AsfState& state, std::span<const uint8_t> value) {
  if (state.picture == nullptr || !state.picture->data.empty()) return;
  detail::ByteCursor in(value);
  std::span<const uint8_t> type, data;
  uint32_t length = 0;
  if (!in.Bytes(1, type) || type[0] != 3 || !in.Le32(length)) return;
  std::string mime;
  for (int text = 0; text < 2; ++text) {  // MIME type, then description
    std::string collected;
    uint32_t unit = 0;
    do {
      if (!in.Le16(unit)) return;
      if (unit != 0 && text == 0) collected += static_cast<char>(unit < 0x80 ? unit : '?');
    } while (unit != 0);
    if (text == 0) mime = collected;
  }
  if (length == 0 || !in.Bytes(length, data)) return;
  PictureKind kind = detail::PictureKindFromMime(ToLowerAscii(mime));
  if (kind == PictureKind::kNone) kind = detail::PictureKindFromBytes(data);
  if (kind == PictureKind::kNone) return;
  state.picture->data.assign(detail::AsText(data));
  state.picture->kind = kind;
}

void ApplyAttribute(AsfState& state, std::string_view name, uint32_t type,
                    std::span<const uint8_t> value) {
  MediaFileTags& tags = state.tags;
  auto set_text = [&](std::string& target) {
    if (type != kString) return;
    std::string text = WideText(value);
    if (!text.empty()) target = std::move(text);
  };
  uint64_t number = 0;
  if (name == "Author") {
    set_text(tags.artist);
  } else if (name == "Title") {
    set_text(tags.title);
  } else if (name == "Description") {
    set_text(tags.comment);
  } else if (name == "WM/AlbumTitle") {
    set_text(tags.album);
  } else if (name == "WM/Year") {
    set_text(tags.year);
  } else if (name == "WM/Genre") {
    set_text(tags.genre);
  } else if (name == "WM/Track") {
    // Zero-based; WM/TrackNumber (one-based, as TagLib prefers it) wins.
    if (!state.have_track_number && NumberValue(type, value, number) && number < 0x7FFFFFFF) {
      tags.trackNumber = static_cast<int32_t>(number) + 1;
    }
  } else if (name == "WM/TrackNumber") {
    if (NumberValue(type, value, number) && number >= 1 && number <= 0x7FFFFFFF) {
      tags.trackNumber = static_cast<int32_t>(number);
      state.have_track_number = true;
    }
  } else if (name == "WM/PartOfSet") {
    if (NumberValue(type, value, number) && number >= 1 && number <= 0x7FFFFFFF) {
      tags.discNumber = static_cast<int32_t>(number);
    }
  } else if (name == "WM/Composer") {
    set_text(tags.composer);
  } else if (name == "WM/Conductor") {
    set_text(tags.conductor);
  } else if (name == "WM/Writer") {
    set_text(tags.lyricist);
  } else if (name == "WM/Publisher") {
    set_text(tags.label);
  } else if (name == "WM/Lyrics") {
    set_text(tags.lyrics);
  } else if (name == "WM/BeatsPerMinute") {
    if (NumberValue(type, value, number)) tags.bpm = detail::ClampToInt32(number);
  } else if (name == "WM/Picture" && type == kBytes) {
    ReadPicture(state, value);
  }
}

void ReadContentDescription(AsfState& state, std::span<const uint8_t> body) {
  detail::ByteCursor in(body);
  uint32_t lengths[5];
  for (uint32_t& length : lengths) {
    if (!in.Le16(length)) return;
  }
  static constexpr std::string_view kNames[5] = {"Title", "Author", "Copyright", "Description",
                                                 "Rating"};
  for (int i = 0; i < 5; ++i) {
    std::span<const uint8_t> text;
    if (!in.Bytes(lengths[i], text)) return;
    ApplyAttribute(state, kNames[i], kString, text);
  }
}

void ReadExtendedContentDescription(AsfState& state, std::span<const uint8_t> body) {
  detail::ByteCursor in(body);
  uint32_t count = 0;
  if (!in.Le16(count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t name_length = 0, type = 0, value_length = 0;
    std::span<const uint8_t> name, value;
    if (!in.Le16(name_length) || !in.Bytes(name_length, name) || !in.Le16(type) ||
        !in.Le16(value_length) || !in.Bytes(value_length, value)) {
      return;
    }
    ApplyAttribute(state, WideText(name), type, value);
  }
}

// Metadata and metadata library objects inside the header extension: a
// 16-bit count of (language, stream, name length, type, 32-bit value
// length, name, value). Windows Media Player stores large attributes there.
void ReadMetadataObject(AsfState& state, std::span<const uint8_t> body) {
  detail::ByteCursor in(body);
  uint32_t count = 0;
  if (!in.Le16(count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t language = 0, stream = 0, name_length = 0, type = 0, value_length = 0;
    std::span<const uint8_t> name, value;
    if (!in.Le16(language) || !in.Le16(stream) || !in.Le16(name_length) || !in.Le16(type) ||
        !in.Le32(value_length) || !in.Bytes(name_length, name) || !in.Bytes(value_length, value)) {
      return;
    }
    if (stream == 0) ApplyAttribute(state, WideText(name), type, value);
  }
}

// Calls `visit(guid, body)` for each object of a run of objects.
template <typename Visit>
void ForEachObject(std::span<const uint8_t> objects, uint64_t count, Visit visit) {
  size_t pos = 0;
  for (uint64_t i = 0; i < count && objects.size() - pos >= kObjectHeaderSize; ++i) {
    const std::span<const uint8_t> guid = objects.subspan(pos, 16);
    const uint64_t size = detail::Le64(objects.data() + pos + 16);
    if (size < kObjectHeaderSize || size > objects.size() - pos) return;
    visit(guid, objects.subspan(pos + kObjectHeaderSize, size - kObjectHeaderSize));
    pos += size;
  }
}

}  // namespace

bool ReadWmaInfo(ByteSource& file, MediaFileTags& tags, CoverPicture* picture) {
  // Header object: GUID, size, object count, two reserved bytes.
  uint8_t head[30];
  if (file.Read(head, sizeof head) != sizeof head || !IsGuid(head, kHeaderObject)) return false;
  const uint64_t header_size = detail::Le64(head + 16);
  const uint32_t object_count = detail::Le32(head + 24);
  if (header_size < sizeof head || header_size > kMaxHeaderSize) return false;
  const int64_t file_size = file.Size();
  if (file_size >= 0 && header_size > static_cast<uint64_t>(file_size)) return false;
  std::string objects(header_size - sizeof head, '\0');
  if (file.Read(objects.data(), objects.size()) != objects.size()) return false;

  MediaFileTags result = tags;
  CoverPicture found;
  const bool want_picture = picture != nullptr && picture->data.empty();
  AsfState state{result, want_picture ? &found : nullptr};
  bool have_properties = false;
  ForEachObject(detail::AsBytes(objects), object_count, [&](auto guid, auto body) {
    if (IsGuid(guid, kFileProperties) && body.size() >= 80) {
      const uint8_t* p = body.data();
      const uint64_t play_duration = detail::Le64(p + 40);  // 100 ns units
      const uint64_t preroll_ms = detail::Le64(p + 56);
      const uint32_t max_bitrate = detail::Le32(p + 76);
      // The editor's "Duration": the play duration without the preroll.
      const uint64_t preroll = preroll_ms > UINT64_MAX / 10000 ? UINT64_MAX : preroll_ms * 10000;
      const uint64_t duration = play_duration > preroll ? play_duration - preroll : 0;
      // Whole 1/25 seconds in 1/75-second frames: a truncation that is intended.
      result.durationFrames = detail::ClampToInt32(duration / 400000 * 3);
      result.bitrateKbps = static_cast<int32_t>(max_bitrate / 1000);
      have_properties = true;
    } else if (IsGuid(guid, kContentDescription)) {
      ReadContentDescription(state, body);
    } else if (IsGuid(guid, kExtendedContentDescription)) {
      ReadExtendedContentDescription(state, body);
    } else if (IsGuid(guid, kHeaderExtension) && body.size() >= 22) {
      // Reserved GUID and 16-bit field, 32-bit data size, then objects.
      const uint32_t data_size = detail::Le32(body.data() + 18);
      if (data_size > body.size() - 22) return;
      ForEachObject(body.subspan(22, data_size), UINT64_MAX, [&](auto inner, auto inner_body) {
        if (IsGuid(inner, kMetadataLibrary) || IsGuid(inner, kMetadata)) {
          ReadMetadataObject(state, inner_body);
        }
      });
    }
  });
  if (!have_properties) return false;
  result.formatName = "WMA";
  tags = std::move(result);
  if (want_picture && !found.data.empty()) *picture = std::move(found);
  return true;
}

}  // namespace dischive
