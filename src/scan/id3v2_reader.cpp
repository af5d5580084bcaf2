// ID3v2 tags (versions 2.2, 2.3 and 2.4) in front of MPEG audio.
//
// Tag header (10 bytes): "ID3", major version, revision, flags
//   (0x80 unsynchronisation, 0x40 extended header, 0x10 footer in 2.4),
//   tag size as a 28-bit syncsafe integer (header and footer excluded).
// Frame header: 2.2 "XXX" + 24-bit size (6 bytes); 2.3 "XXXX" + 32-bit size
//   + 2 flag bytes; 2.4 the same with a syncsafe size (10 bytes).
#include <cstring>
#include <string>
#include <vector>

#include "dischive/text.h"
#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

constexpr uint32_t kMaxTagSize = 2097152;  // 2 MiB: a larger tag is not read

enum class Field {
  kTitle,
  kArtist,
  kAlbum,
  kYear,
  kRecordingDates,
  kRecordingTime,
  kDate,
  kTrack,
  kDisc,
  kGenre,
  kComment,
  kComposer,
  kConductor,
  kLyricist,
  kLyrics,
  kBpm,
  kLabel,
  kPicture,
};

struct FrameRule {
  std::string_view v22;  // three-letter id of version 2.2, empty when none
  std::string_view v23;  // four-letter id of versions 2.3/2.4, empty when none
  Field field;
};

constexpr FrameRule kFrameRules[] = {
    {"TT2", "TIT2", Field::kTitle},
    {"TP1", "TPE1", Field::kArtist},
    {"TAL", "TALB", Field::kAlbum},
    {"TYE", "TYER", Field::kYear},
    {"TRD", "TRDA", Field::kRecordingDates},
    {"TRK", "TRCK", Field::kTrack},
    {"TPA", "TPOS", Field::kDisc},
    {"TCO", "TCON", Field::kGenre},
    {"COM", "COMM", Field::kComment},
    {"TCM", "TCOM", Field::kComposer},
    {"TP3", "TPE3", Field::kConductor},
    {"TXT", "TEXT", Field::kLyricist},
    {"ULT", "USLT", Field::kLyrics},
    {"TBP", "TBPM", Field::kBpm},  // TBPM in 2.3/2.4 as TagLib and mutagen read it
    {"", "TPUB", Field::kLabel},
    {"PIC", "APIC", Field::kPicture},
    // Dates beyond the year frame, as TagLib and mutagen read them: the 2.4
    // recording time and the 2.3 day and month ("DDMM").
    {"", "TDRC", Field::kRecordingTime},
    {"TDA", "TDAT", Field::kDate},
};

bool IsFrameIdChar(uint8_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsFrameId(const uint8_t* p, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (!IsFrameIdChar(p[i])) return false;
  }
  return true;
}

// Reverses unsynchronisation: every 0xFF 0x00 pair becomes 0xFF.
std::string Resynchronise(std::span<const uint8_t> data) {
  std::string out;
  out.reserve(data.size());
  for (size_t i = 0; i < data.size(); ++i) {
    out.push_back(static_cast<char>(data[i]));
    if (data[i] == 0xFF && i + 1 < data.size() && data[i + 1] == 0x00) ++i;
  }
  return out;
}

// Text in one of the four ID3v2 encodings to UTF-8.
std::string DecodeText(uint8_t encoding, std::span<const uint8_t> bytes) {
  switch (encoding) {
    case 0:
      return detail::Latin1Text(bytes);
    case 1:
      return detail::Utf16Text(bytes, ByteOrder::kLittleEndian);  // the BOM decides
    case 2:
      return detail::Utf16Text(bytes, ByteOrder::kBigEndian);
    default:
      return SanitizeUtf8(detail::AsText(bytes));
  }
}

bool IsWide(uint8_t encoding) {
  return encoding == 1 || encoding == 2;
}

// The length of the text before its terminator (one NUL, or two NULs at an
// even offset in UTF-16); `end` receives the offset behind the terminator.
size_t TerminatedLength(uint8_t encoding, std::span<const uint8_t> bytes, size_t& end) {
  if (IsWide(encoding)) {
    for (size_t i = 0; bytes.size() - i >= 2; i += 2) {
      if (bytes[i] == 0 && bytes[i + 1] == 0) {
        end = i + 2;
        return i;
      }
    }
  } else {
    for (size_t i = 0; i < bytes.size(); ++i) {
      if (bytes[i] == 0) {
        end = i + 1;
        return i;
      }
    }
  }
  end = bytes.size();
  return bytes.size();
}

// The values of a text frame: encoding byte, then one or more terminated
// strings (several only in 2.4). Empty values are dropped.
std::vector<std::string> TextValues(std::span<const uint8_t> frame) {
  std::vector<std::string> values;
  if (frame.empty() || frame[0] > 3) return values;
  const uint8_t encoding = frame[0];
  std::span<const uint8_t> rest = frame.subspan(1);
  while (!rest.empty() && values.size() < 64) {
    size_t end = 0;
    const size_t length = TerminatedLength(encoding, rest, end);
    std::string value = DecodeText(encoding, rest.first(length));
    if (!value.empty()) values.push_back(std::move(value));
    rest = rest.subspan(end);
  }
  return values;
}

std::string FirstText(std::span<const uint8_t> frame) {
  if (frame.empty() || frame[0] > 3) return {};
  std::span<const uint8_t> rest = frame.subspan(1);
  while (!rest.empty()) {
    size_t end = 0;
    const size_t length = TerminatedLength(frame[0], rest, end);
    if (length > 0) {
      std::string value = DecodeText(frame[0], rest.first(length));
      if (!value.empty()) return value;
    }
    rest = rest.subspan(end);
  }
  return {};
}

// COMM/COM and USLT/ULT: encoding, 3-byte language, terminated short
// description, then the text.
bool DescribedText(std::span<const uint8_t> frame, std::string& description, std::string& text) {
  if (frame.size() < 4 || frame[0] > 3) return false;
  const uint8_t encoding = frame[0];
  std::span<const uint8_t> rest = frame.subspan(4);
  size_t end = 0;
  const size_t length = TerminatedLength(encoding, rest, end);
  description = DecodeText(encoding, rest.first(length));
  rest = rest.subspan(end);
  // Drop the terminator some writers put after the text.
  size_t text_end = 0;
  const size_t text_length = TerminatedLength(encoding, rest, text_end);
  text = DecodeText(encoding, rest.first(text_length));
  return true;
}

bool AllDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// A genre number written as text; numbers beyond the list keep their text.
std::string GenreFromNumber(std::string_view digits, std::string_view as_written) {
  if (digits.size() > 3) return std::string(as_written);
  const int32_t index = detail::ParseLeadingInt(digits);
  // 148 is accepted as a reference and names no genre.
  if (index > 148) return std::string(as_written);
  return std::string(GenreNameFromIndex(index));
}

}  // namespace

// "(17)", "17", "(17)Rock" (the refinement text wins), "(RX)", "(CR)",
// "((text" (a text that begins with "(") and plain names.
std::string ParseId3Genre(std::string_view text) {
  text = TrimBlanks(text);
  if (text.size() >= 2 && text[0] == '(' && text[1] == '(') return std::string(text.substr(1));
  if (!text.empty() && text[0] == '(') {
    const size_t close = text.find(')');
    if (close != std::string_view::npos) {
      const std::string_view inner = text.substr(1, close - 1);
      const std::string_view refinement = TrimBlanks(text.substr(close + 1));
      if (!refinement.empty()) return ParseId3Genre(refinement);
      if (AllDigits(inner)) return GenreFromNumber(inner, text);
      if (inner == "RX") return "Remix";
      if (inner == "CR") return "Cover";
    }
    return std::string(text);
  }
  if (AllDigits(text)) return GenreFromNumber(text, text);
  return std::string(text);
}

namespace {

struct TagState {
  MediaFileTags& tags;
  CoverPicture* picture;  // null when no picture is wanted
  bool picture_is_front = false;
  std::string date;  // TDAT "DDMM"
};

void TakePicture(TagState& state, uint8_t type, PictureKind kind, std::span<const uint8_t> data) {
  if (state.picture == nullptr || kind == PictureKind::kNone || data.empty()) return;
  // The front cover wins; another picture is kept only until one is found.
  const bool front = type == 3;
  if (state.picture_is_front || (!front && !state.picture->data.empty())) return;
  state.picture->data.assign(detail::AsText(data));
  state.picture->kind = kind;
  state.picture_is_front = front;
}

void ReadPictureFrame(TagState& state, std::span<const uint8_t> frame, bool v22) {
  if (frame.size() < 2 || frame[0] > 3) return;
  const uint8_t encoding = frame[0];
  std::span<const uint8_t> rest = frame.subspan(1);
  PictureKind kind = PictureKind::kNone;
  if (v22) {  // three-letter image format
    if (rest.size() < 4) return;
    const std::string format = ToLowerAscii(detail::AsText(rest.first(3)));
    kind = format == "jpg" ? PictureKind::kJpeg : format == "png" ? PictureKind::kPng : kind;
    rest = rest.subspan(3);
  } else {
    size_t end = 0;
    const size_t length = TerminatedLength(0, rest, end);
    kind = detail::PictureKindFromMime(ToLowerAscii(detail::AsText(rest.first(length))));
    rest = rest.subspan(end);
  }
  if (rest.empty()) return;
  const uint8_t type = rest[0];
  rest = rest.subspan(1);
  size_t end = 0;
  TerminatedLength(encoding, rest, end);
  rest = rest.subspan(end);
  // Some writers leave the MIME type empty: recognise the image itself.
  if (kind == PictureKind::kNone) kind = detail::PictureKindFromBytes(rest);
  TakePicture(state, type, kind, rest);
}

void ApplyFrame(TagState& state, Field field, std::span<const uint8_t> frame, bool v22) {
  MediaFileTags& tags = state.tags;
  auto set_text = [&](std::string& target) {
    std::string value = FirstText(frame);
    if (!value.empty()) target = std::move(value);
  };
  switch (field) {
    case Field::kTitle:
      set_text(tags.title);
      break;
    case Field::kArtist: {
      // Several artists (2.4 allows a list) are joined as in Vorbis comments.
      std::string joined;
      for (const std::string& value : TextValues(frame)) {
        if (!joined.empty()) joined += ", ";
        joined += value;
      }
      if (!joined.empty()) tags.artist = std::move(joined);
      break;
    }
    case Field::kAlbum:
      set_text(tags.album);
      break;
    case Field::kYear:
    case Field::kRecordingTime:
      set_text(tags.year);
      break;
    case Field::kRecordingDates:
      if (tags.year.empty()) set_text(tags.year);
      break;
    case Field::kDate:
      set_text(state.date);
      break;
    case Field::kTrack: {
      const std::string value = FirstText(frame);
      if (value.empty()) break;
      const int32_t n = detail::ParseLeadingInt(value);
      tags.trackNumber = n < 1 ? -1 : n;
      break;
    }
    case Field::kDisc: {
      const std::string value = FirstText(frame);
      if (value.empty()) break;
      const int32_t n = detail::ParseLeadingInt(value);
      tags.discNumber = n < 1 ? -1 : n;
      break;
    }
    case Field::kGenre: {
      const std::string value = FirstText(frame);
      if (!value.empty()) tags.genre = ParseId3Genre(value);
      break;
    }
    case Field::kComment: {
      std::string description, text;
      if (!DescribedText(frame, description, text) || text.empty()) break;
      if (!tags.comment.empty()) tags.comment += "\r\n\r\n";
      if (!description.empty()) tags.comment += description + ":\r\n";
      tags.comment += text;
      break;
    }
    case Field::kComposer:
      set_text(tags.composer);
      break;
    case Field::kConductor:
      set_text(tags.conductor);
      break;
    case Field::kLyricist:
      set_text(tags.lyricist);
      break;
    case Field::kLyrics: {
      std::string description, text;
      if (DescribedText(frame, description, text) && !text.empty()) tags.lyrics = std::move(text);
      break;
    }
    case Field::kBpm: {
      const std::string value = FirstText(frame);
      if (value.empty()) break;
      const int32_t n = detail::ParseLeadingInt(value);
      tags.bpm = n < 0 ? 0 : n;
      break;
    }
    case Field::kLabel:
      set_text(tags.label);
      break;
    case Field::kPicture:
      ReadPictureFrame(state, frame, v22);
      break;
  }
}

const FrameRule* FindRule(std::string_view id, bool v22) {
  for (const FrameRule& rule : kFrameRules) {
    const std::string_view name = v22 ? rule.v22 : rule.v23;
    if (!name.empty() && name == id) return &rule;
  }
  return nullptr;
}

// True when a frame header, padding or the tag's end starts at `offset`.
bool PlausibleFrameStart(std::span<const uint8_t> body, uint64_t offset) {
  if (offset == body.size()) return true;
  if (offset > body.size()) return false;
  if (body[offset] == 0) return true;
  return body.size() - offset >= 10 && IsFrameId(body.data() + offset, 4);
}

void ReadFrames(TagState& state, std::span<const uint8_t> body, int major, bool tag_unsync) {
  const bool v22 = major == 2;
  const size_t header_size = v22 ? 6 : 10;
  const size_t id_length = v22 ? 3 : 4;
  size_t pos = 0;
  while (body.size() - pos >= header_size) {
    const uint8_t* h = body.data() + pos;
    if (h[0] == 0 || !IsFrameId(h, id_length)) break;  // padding or garbage ends the frames
    uint64_t size = 0;
    uint32_t flags = 0;
    if (v22) {
      size = detail::Be24(h + 3);
    } else if (major == 3) {
      size = detail::Be32(h + 4);
      flags = detail::Be16(h + 8);
    } else {
      flags = detail::Be16(h + 8);
      const uint32_t raw = detail::Be32(h + 4);
      size = detail::Syncsafe32(h + 4);
      // Some taggers write plain sizes in 2.4 (as TagLib and mutagen accept):
      // take the plain size when the syncsafe one cannot be and when only the
      // plain one lands on a plausible next frame.
      if ((raw & 0x80808080u) != 0) {
        size = raw;
      } else if (raw != size && !PlausibleFrameStart(body, pos + header_size + size) &&
                 PlausibleFrameStart(body, pos + header_size + uint64_t{raw})) {
        size = raw;
      }
    }
    pos += header_size;
    if (size > body.size() - pos) break;
    const std::string_view id = detail::AsText(std::span<const uint8_t>(h, id_length));
    std::span<const uint8_t> frame = body.subspan(pos, static_cast<size_t>(size));
    pos += static_cast<size_t>(size);

    const FrameRule* rule = FindRule(id, v22);
    if (rule == nullptr) continue;
    std::string resynchronised;
    if (major == 3) {
      if ((flags & 0x00C0) != 0) continue;  // compressed or encrypted: not read
      if ((flags & 0x0020) != 0 && !frame.empty()) frame = frame.subspan(1);  // group id
    } else if (major == 4) {
      if ((flags & 0x000C) != 0) continue;  // compressed or encrypted: not read
      if ((flags & 0x0040) != 0) {          // group id
        if (frame.empty()) continue;
        frame = frame.subspan(1);
      }
      if ((flags & 0x0001) != 0) {  // data length indicator
        if (frame.size() < 4) continue;
        frame = frame.subspan(4);
      }
      if ((flags & 0x0002) != 0 || tag_unsync) {
        resynchronised = Resynchronise(frame);
        frame = detail::AsBytes(resynchronised);
      }
    }
    ApplyFrame(state, rule->field, frame, v22);
  }
}

}  // namespace

Id3v2Result ReadId3v2Tag(ByteSource& file, MediaFileTags& tags, CoverPicture* picture,
                         int64_t* tag_end) {
  const int64_t start = file.Tell();
  uint8_t header[10];
  if (file.Read(header, sizeof header) != sizeof header || std::memcmp(header, "ID3", 3) != 0 ||
      header[3] < 2 || header[3] > 4 || header[4] == 0xFF ||
      (detail::Be32(header + 6) & 0x80808080u) != 0) {
    return Id3v2Result::kNoTag;
  }
  const int major = header[3];
  const uint8_t flags = header[5];
  const uint32_t size = detail::Syncsafe32(header + 6);
  const bool footer = major == 4 && (flags & 0x10) != 0;
  if (tag_end != nullptr) *tag_end = start + 10 + size + (footer ? 10 : 0);
  // Extended header (2.3/2.4), or compression (2.2): the tag is not read.
  if ((flags & 0x40) != 0 || size > kMaxTagSize) return Id3v2Result::kSkipped;

  std::string body(size, '\0');
  if (file.Read(body.data(), size) != size) return Id3v2Result::kSkipped;
  if (major < 4 && (flags & 0x80) != 0) body = Resynchronise(detail::AsBytes(body));

  MediaFileTags result = tags;
  CoverPicture found;
  const bool want_picture = picture != nullptr && picture->data.empty();
  TagState state{result, want_picture ? &found : nullptr, false, {}};
  ReadFrames(state, detail::AsBytes(body), major, (flags & 0x80) != 0);

  // A 2.3 year with its "DDMM" date becomes "YYYY-MM-DD".
  if (state.date.size() == 4 && AllDigits(state.date) && result.year.size() == 4 &&
      AllDigits(result.year)) {
    result.year += "-" + state.date.substr(2, 2) + "-" + state.date.substr(0, 2);
  }
  tags = std::move(result);
  if (want_picture && !found.data.empty()) *picture = std::move(found);
  return Id3v2Result::kRead;
}

}  // namespace dischive
