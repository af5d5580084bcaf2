// Ogg Vorbis: header packets over pages, the comment limits, the playing time.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dischive/tag_readers.h"
#include "scan/bytes.h"

namespace dischive {
namespace {

using test::Le32;
using test::Le64;

// One page holding `data` as packet bytes; `ends` false leaves the last
// packet open (continued on the next page). CRCs are not checked by readers
// of tags and are left 0.
std::string Page(uint32_t serial, uint64_t granule, const std::string& data, bool ends = true) {
  std::string lacing(data.size() / 255, '\xFF');
  if (ends) lacing += static_cast<char>(data.size() % 255);
  return "OggS" + std::string(2, '\0') + Le64(granule) + Le32(serial) + Le32(0) + Le32(0) +
         static_cast<char>(lacing.size()) + lacing + data;
}

// Identification header: 8000 Hz, nominal 24 kbit/s.
const std::string kIdent = std::string("\x01vorbis", 7) + Le32(0) + '\x01' + Le32(8000) + Le32(0) +
                           Le32(24000) + Le32(0) + '\xB8' + '\x01';

std::string Comment(const std::vector<std::string>& comments, uint32_t vendor_length = 6) {
  std::string c = std::string("\x03vorbis", 7) + Le32(vendor_length) + "vendor" +
                  Le32(static_cast<uint32_t>(comments.size()));
  for (const std::string& text : comments)
    c += Le32(static_cast<uint32_t>(text.size())) + text;
  return c + '\x01';
}

TEST(OggVorbis, ReadsHeaderPacketsAndTheLastGranule) {
  const std::string audio = Page(7, 16000, std::string(300, 'a'));
  // name, file, taken, title, frames
  const std::string long_title = "TITLE=" + std::string(5000, 't');
  const std::string split = Comment({long_title});
  const std::tuple<const char*, std::string, bool, const char*, int32_t> cases[] = {
      {"plain", Page(7, 0, kIdent) + Page(7, 0, Comment({"TITLE=T"})) + audio, true, "T", 150},
      {"comment over three pages",
       Page(7, 0, kIdent) + Page(7, 0, split.substr(0, 255 * 8), false) +
           Page(7, 0, split.substr(255 * 8, 255 * 8), false) + Page(7, 0, split.substr(255 * 16)) +
           audio,
       true, long_title.c_str() + 6, 150},
      {"another stream's page between",
       Page(7, 0, kIdent) + Page(9, 0, "other") + Page(7, 0, Comment({"TITLE=T"})) + audio, true,
       "T", 150},
      {"zero vendor length discards the header",
       Page(7, 0, kIdent) + Page(7, 0, Comment({"TITLE=T"}, 0)) + audio, true, "", 150},
      {"comment length beyond the file",
       Page(7, 0, kIdent) +
           Page(7, 0, Comment({"TITLE=T"}).substr(0, 20) + Le32(1) + Le32(40000000)),
       true, "", 0},
      {"no audio page: no time", Page(7, 0, kIdent) + Page(7, 0, Comment({"TITLE=T"})), true, "T",
       0},
      {"opus, not vorbis", Page(7, 0, "OpusHead....") + Page(7, 0, "OpusTags....") + audio, false,
       "", 0},
      {"marker without pages", "junk" + Comment({"TITLE=Raw"}), true, "Raw", 0},
      {"nothing", std::string(100, 'x'), false, "", 0},
  };
  for (const auto& [name, file, taken, title, frames] : cases) {
    MemorySource source(file);
    MediaFileTags tags;
    EXPECT_EQ(ReadOggVorbisInfo(source, tags, true), taken) << name;
    EXPECT_EQ(tags.title, title) << name;
    EXPECT_EQ(tags.durationFrames, frames) << name;
    EXPECT_EQ(tags.formatName, taken ? "OGG" : "") << name;
  }
}

}  // namespace
}  // namespace dischive
