// Tables of contents as users have them: offsets and a length, the line that
// cd-discid prints, or a cue sheet.
#include <fmt/format.h>

#include <sstream>

#include "dischive/cddb.h"
#include "dischive/text.h"
#include "util/parse.h"

namespace dischive {
namespace {

// A count or frame offset: decimal, no sign, at most nine digits' worth.
std::optional<uint32_t> ParseCount(std::string_view word) {
  return ParseDecimal32(word, 999'999'999);
}

std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::istringstream in{std::string(text)};
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

std::optional<DiscToc> Fail(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return std::nullopt;
}

}  // namespace

std::optional<DiscToc> MakeDiscToc(const std::vector<uint32_t>& frame_offsets,
                                   uint32_t disc_length_seconds, std::string* error) {
  if (frame_offsets.empty()) return Fail(error, "no tracks given");
  if (frame_offsets.size() > kMaxDiscTracks) {
    return Fail(error, fmt::format("{} tracks: a disc has at most {}", frame_offsets.size(),
                                   kMaxDiscTracks));
  }
  DiscToc toc;
  toc.track_count = static_cast<uint32_t>(frame_offsets.size());
  for (size_t i = 0; i < frame_offsets.size(); ++i) {
    if (i > 0 && frame_offsets[i] <= frame_offsets[i - 1]) {
      return Fail(error, fmt::format("track {} starts at frame {}, not after track {}", i + 1,
                                     frame_offsets[i], i));
    }
    toc.frame_offsets[i] = frame_offsets[i];
  }
  if (uint64_t{disc_length_seconds} * 75 <= frame_offsets.back()) {
    return Fail(error, fmt::format("a disc of {} seconds ends before its last track starts",
                                   disc_length_seconds));
  }
  toc.disc_length_seconds = disc_length_seconds;
  toc.disc_id = ComputeFreedbDiscId(toc);
  return toc;
}

std::optional<DiscToc> MakeDiscTocFromLeadOut(const std::vector<uint32_t>& frame_offsets,
                                              uint32_t lead_out_frame, std::string* error) {
  if (!frame_offsets.empty() && lead_out_frame <= frame_offsets.back()) {
    return Fail(
        error, fmt::format("the lead-out at frame {} is not after the last track", lead_out_frame));
  }
  return MakeDiscToc(frame_offsets, lead_out_frame / 75, error);
}

std::string FormatDiscIdLine(const DiscToc& toc) {
  std::string line = fmt::format("{:08x} {}", toc.disc_id, toc.track_count);
  for (uint32_t i = 0; i < toc.track_count && i < kMaxDiscTracks; ++i)
    line += fmt::format(" {}", toc.frame_offsets[i]);
  return line + fmt::format(" {}", toc.disc_length_seconds);
}

std::optional<DiscToc> ParseDiscIdLine(std::string_view line, std::string* error,
                                       uint32_t* stated_id) {
  const std::vector<std::string> w = Words(line);
  const auto count = w.size() >= 2 ? ParseCount(w[1]) : std::nullopt;
  if (w.size() < 4 || !count || w.size() - 3 != *count || w[0].size() > 8) {
    return Fail(error, "expected \"discid ntracks offset1 ... offsetN seconds\"");
  }
  const std::optional<uint32_t> id = ParseHex32(w[0]);
  if (!id) return Fail(error, "the disc id \"" + w[0] + "\" is not hexadecimal");
  std::vector<uint32_t> offsets;
  for (size_t i = 2; i + 1 < w.size(); ++i) {
    const auto offset = ParseCount(w[i]);
    if (!offset) return Fail(error, "\"" + w[i] + "\" is not a frame offset");
    offsets.push_back(*offset);
  }
  const auto seconds = ParseCount(w.back());
  if (!seconds) return Fail(error, "\"" + w.back() + "\" is not a length in seconds");
  if (stated_id != nullptr) *stated_id = *id;
  return MakeDiscToc(offsets, *seconds, error);
}

std::optional<DiscToc> ParseCueSheet(std::string_view text, uint32_t disc_length_seconds,
                                     std::string* error) {
  std::vector<uint32_t> offsets;
  int files = 0;
  bool index_pending = false;
  std::istringstream in{std::string(text)};
  for (std::string line; std::getline(in, line);) {
    const std::vector<std::string> w = Words(line);
    if (w.empty()) continue;
    const std::string keyword = ToLowerAscii(w[0]);
    if (keyword == "file") {
      if (++files > 1) {
        return Fail(error,
                    "cue sheets with one file per track do not hold the disc layout; "
                    "give --offsets instead");
      }
    } else if (keyword == "track") {
      if (index_pending)
        return Fail(error, fmt::format("track {} has no INDEX 01", offsets.size()));
      index_pending = true;
    } else if (keyword == "index" && w.size() >= 3 && w[1] == "01" && index_pending) {
      // mm:ss:ff, frames of 1/75 s; the disc's first track starts after the
      // 2-second lead-in.
      unsigned mm = 0, ss = 0, ff = 0;
      char c1 = 0, c2 = 0;
      std::istringstream t(w[2]);
      if (!(t >> mm >> c1 >> ss >> c2 >> ff) || c1 != ':' || c2 != ':' || ss > 59 || ff > 74 ||
          mm > 999) {
        return Fail(error, "\"" + w[2] + "\" is not an index time mm:ss:ff");
      }
      offsets.push_back(150 + (mm * 60 + ss) * 75 + ff);
      index_pending = false;
      if (offsets.size() > kMaxDiscTracks) break;
    }
  }
  if (index_pending)
    return Fail(error, fmt::format("track {} has no INDEX 01", offsets.size() + 1));
  if (offsets.empty()) return Fail(error, "the cue sheet has no tracks");
  return MakeDiscToc(offsets, disc_length_seconds, error);
}

}  // namespace dischive
