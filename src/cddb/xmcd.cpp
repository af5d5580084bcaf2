// xmcd database entries: reading an entry into a keyword map and into a
// DiscMetadata, and writing an entry for submission.
//
// An entry is a list of lines "KEYWORD=value"; a keyword that repeats continues
// its value (long values are split over several lines). Comments start with
// "#"; the "# Revision: N" comment carries the entry's revision. Values escape
// tab, line feed and backslash as "\t", "\n" and "\\".
#include <fmt/printf.h>

#include <climits>

#include "dischive/cddb.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "dischive/version.h"

namespace dischive {
namespace {

// A decimal number at the start of `text` (after blanks, with an optional
// sign), saturated to the range of int32_t; nullopt without digits.
std::optional<int32_t> ParseLeadingInt(std::string_view text) {
  size_t pos = 0;
  while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t'))
    ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) negative = text[pos++] == '-';
  int64_t value = 0;
  size_t digits = 0;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos, ++digits) {
    if (value <= INT32_MAX) value = value * 10 + (text[pos] - '0');
  }
  if (digits == 0) return std::nullopt;
  if (negative) value = -value;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

const std::string* Lookup(const XmcdKeywordMap& map, std::string_view keyword) {
  const auto it = map.find(keyword);
  return it == map.end() ? nullptr : &it->second;
}

bool IsAlnumAscii(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Length in bytes of the UTF-8 sequence that starts with `lead` (1 for a stray byte).
size_t Utf8SequenceLength(unsigned char lead) {
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  if (lead >= 0xE0) return lead <= 0xEF ? 3 : 1;
  if (lead >= 0xC2) return 2;
  return 1;
}

// One keyword line or several: the escaped value in pieces of at most
// 78 - keyword length characters, so that no line passes 79 characters.
// Pieces are cut between characters, never inside a UTF-8 sequence.
void WriteKeyword(std::string& out, std::string_view keyword, std::string_view value) {
  const std::string escaped = EscapeXmcdValue(value);
  const size_t room = keyword.size() < 77 ? 78 - keyword.size() : 1;
  size_t pos = 0;
  do {
    size_t end = pos;
    for (size_t chars = 0; chars < room && end < escaped.size(); ++chars) {
      const size_t length = Utf8SequenceLength(static_cast<unsigned char>(escaped[end]));
      end += length < escaped.size() - end ? length : escaped.size() - end;
    }
    out.append(keyword).append("=").append(escaped, pos, end - pos).append("\r\n");
    pos = end;
  } while (pos < escaped.size());
}

}  // namespace

bool ParseXmcdEntry(std::string_view body, XmcdKeywordMap& map) {
  map.clear();
  size_t pos = 0;
  for (;;) {
    // A line ends at its first line feed; a carriage return before it belongs
    // to the line end. A bare "\n" therefore ends a line as "\r\n" does.
    const size_t lf = body.find('\n', pos);
    if (lf == std::string_view::npos) {
      map.clear();
      return false;
    }
    const size_t end = lf > pos && body[lf - 1] == '\r' ? lf - 1 : lf;
    const std::string_view line = body.substr(pos, end - pos);
    pos = lf + 1;

    if (!line.empty() && line[0] == '.') return true;
    if (!line.empty() && line[0] == '#') {
      // The map carries the revision a corrected submission must bear: one more.
      constexpr std::string_view kRevision = "# Revision: ";
      if (line.substr(0, kRevision.size()) == kRevision) {
        if (const auto n = ParseLeadingInt(line.substr(kRevision.size()))) {
          map["Revision"] = std::to_string(*n < INT32_MAX ? *n + 1 : *n);
        }
      }
      continue;
    }
    if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) continue;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
      map.clear();
      return false;
    }
    if (equals + 1 == line.size()) continue;
    const std::string_view keyword = line.substr(0, equals);
    const std::string_view value = line.substr(equals + 1);
    const auto it = map.find(keyword);
    if (it != map.end()) {
      it->second.append(value);
    } else {
      map.emplace(std::string(keyword), std::string(value));
    }
  }
}

std::string UnescapeXmcdValue(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out.push_back(text[i]);
      continue;
    }
    if (++i == text.size()) break;  // a lone backslash at the end says nothing
    switch (text[i]) {
      case 'n':
        out.append("\r\n");
        break;
      case 't':
        out.push_back('\t');
        break;
      case 'r':
        break;
      default:
        out.push_back(text[i]);
        break;
    }
  }
  return out;
}

std::string EscapeXmcdValue(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    switch (c) {
      case '\t':
        out.append("\\t");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\r':
        break;
      default:
        out.push_back(c);
        break;
    }
  }
  return out;
}

void SplitArtistTitle(std::string_view text, std::string& artist, std::string& title) {
  const size_t separator = text.find(" / ");
  if (separator == std::string_view::npos) {
    artist.clear();
    title = TrimBlanks(text);
    return;
  }
  const std::string_view before = TrimBlanks(text.substr(0, separator));
  const std::string_view after = TrimBlanks(text.substr(separator + 3));
  if (after.empty()) {
    artist.clear();
    title = before;
  } else {
    artist = before;
    title = after;
  }
}

bool ParseDiscNumberSuffix(std::string& title, int& number) {
  size_t digits_start = title.size();
  while (digits_start > 0 && title[digits_start - 1] >= '0' && title[digits_start - 1] <= '9') {
    --digits_start;
  }
  if (digits_start < title.size()) {
    // More than three digits cannot lie within 1..256; checking first also keeps
    // the number from overflowing.
    if (title.size() - digits_start > 3) return false;
    const int value = *ParseLeadingInt(std::string_view(title).substr(digits_start));
    if (value < 1 || value > 256) return false;
    std::string_view rest = std::string_view(title).substr(0, digits_start);
    if (!rest.empty() && rest.back() == '-') rest.remove_suffix(1);
    title = std::string(TrimBlanks(rest));
    number = value;
    return true;
  }
  static constexpr std::string_view kWords[] = {"one",  "two", "three",  "four",
                                                "five", "six", "seven",  "eight",
                                                "nine", "ten", "eleven", "twelve"};
  for (size_t i = 0; i < std::size(kWords); ++i) {
    if (!EndsWithIgnoreCase(title, kWords[i])) continue;
    const std::string_view rest =
        std::string_view(title).substr(0, title.size() - kWords[i].size());
    // "Bone" does not end in "one": the word must stand on its own.
    if (rest.empty() || IsAlnumAscii(rest.back())) return false;
    title = std::string(TrimBlanks(rest));
    number = static_cast<int>(i) + 1;
    return true;
  }
  return false;
}

void ApplyXmcdToMetadata(DiscMetadata& metadata, const XmcdKeywordMap& map,
                         std::string_view caller_text, uint32_t track_count) {
  std::string artist, title;
  if (const std::string* dtitle = Lookup(map, "DTITLE")) {
    SplitArtistTitle(UnescapeXmcdValue(*dtitle), artist, title);
  }
  if (artist.empty()) {
    // "DTITLE=Name" names an artist and a title that are the same.
    artist = title;
  } else {
    int disc_number = 0;
    ParseDiscNumberSuffix(title, disc_number);
  }
  const bool various =
      EqualsIgnoreCase(artist, "various") || EqualsIgnoreCase(artist, "various artists");
  metadata.SetInt(field::kVariousArtists, 0, various ? 1 : 0);
  if (various) artist = LoadHostString(strings::kVariousArtists);
  metadata.SetText(field::kArtist, 0, std::move(artist));
  metadata.SetText(field::kTitle, 0, std::move(title));
  metadata.SetText(field::kCategory, 0, std::string(caller_text));

  const uint32_t tracks = track_count < kMaxDiscTracks ? track_count : kMaxDiscTracks;
  for (uint32_t k = 0; k < tracks; ++k) {
    const std::string* ttitle = Lookup(map, fmt::sprintf("TTITLE%d", k));
    // A track without a TTITLE line gets no EXTT either: both describe one
    // track, and an EXTT alone would be a comment for a nameless track.
    if (ttitle == nullptr) continue;
    std::string track_artist, track_title;
    SplitArtistTitle(UnescapeXmcdValue(*ttitle), track_artist, track_title);
    metadata.SetText(field::kTrackTitle, k + 1, std::move(track_title));
    metadata.SetText(field::kArtist, k + 1, std::move(track_artist));
    if (const std::string* extt = Lookup(map, fmt::sprintf("EXTT%d", k))) {
      metadata.SetText(field::kFreedbComment, k + 1, UnescapeXmcdValue(*extt));
    }
  }
  if (const std::string* extd = Lookup(map, "EXTD")) {
    std::string text = UnescapeXmcdValue(*extd);
    if (!TrimBlanks(text).empty()) metadata.SetText(field::kFreedbComment, 0, std::move(text));
  }
  if (const std::string* revision = Lookup(map, "Revision")) {
    if (const auto n = ParseLeadingInt(*revision)) metadata.SetInt(field::kRevision, 0, *n);
  }
  if (const std::string* dyear = Lookup(map, "DYEAR")) {
    // Only 1901..2027 is taken: the packed date holds seven bits of years since 1900.
    const auto year = ParseLeadingInt(*dyear);
    if (year && *year >= 1901 && *year <= 2027) {
      metadata.SetInt(field::kReleaseDate, 0, ((*year - 1900) & 127) << 24);
    }
  }
  if (const std::string* dgenre = Lookup(map, "DGENRE")) {
    metadata.SetText(field::kGenre, 0, UnescapeXmcdValue(*dgenre));
    metadata.SetText(field::kGenre2, 0, std::string());
  }
}

void WriteXmcdEntry(const DiscSubmission& s, std::string& entry, std::string& subject) {
  const LibraryVersion& version = GetLibraryVersion();
  const uint32_t tracks =
      s.track_count < kMaxSubmissionTracks ? s.track_count : kMaxSubmissionTracks;
  entry.clear();
  entry += fmt::sprintf(
      "# xmcd CD database file generated by %s %d.%d\r\n#\r\n# Track frame offsets:\r\n",
      "DiscHive", version.major, version.minor);
  for (uint32_t k = 0; k < tracks; ++k)
    entry += fmt::sprintf("#\t%d\r\n", s.frame_offsets[k]);
  entry += fmt::sprintf(
      "#\r\n# Disc length: %d seconds\r\n#\r\n# Revision: %d\r\n# Submitted via: %s %d.%d\r\n#\r\n",
      s.disc_length_seconds, s.revision, "DiscHive", version.major, version.minor);
  WriteKeyword(entry, "DISCID", fmt::sprintf("%08lx", static_cast<unsigned long>(s.disc_id)));
  WriteKeyword(entry, "DTITLE", s.artist + " / " + s.title);
  if (s.has_year_and_genre) {
    WriteKeyword(entry, "DYEAR",
                 s.year >= 1900 && s.year <= 2099 ? fmt::sprintf("%d", s.year) : std::string());
    WriteKeyword(entry, "DGENRE", s.genre);
  }
  for (uint32_t k = 0; k < tracks; ++k) {
    const std::string& track_artist = s.track_artist[k];
    WriteKeyword(entry, fmt::sprintf("TTITLE%d", k),
                 track_artist.empty() || EqualsIgnoreCase(track_artist, s.artist)
                     ? s.track_title[k]
                     : track_artist + " / " + s.track_title[k]);
  }
  WriteKeyword(entry, "EXTD", s.extended);
  for (uint32_t k = 0; k < tracks; ++k) {
    WriteKeyword(entry, fmt::sprintf("EXTT%d", k), s.track_extended[k]);
  }
  WriteKeyword(entry, "PLAYORDER", "");
  subject = fmt::sprintf("cddb %s %08lx", s.category, static_cast<unsigned long>(s.disc_id));
}

}  // namespace dischive
