#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "dischive/cddb.h"
#include "dischive/strings.h"
#include "dischive/version.h"

namespace dischive {
namespace {

std::string Str(const DiscMetadata& m, field::FieldId id, uint32_t index) {
  return m.Text(id, index).value_or("<none>");
}

TEST(XmcdReaderTest, SplitsKeywordsAndHandlesLineEndsCommentsAndContinuations) {
  XmcdKeywordMap map;
  // Mixed line ends lose no line; a repeated keyword continues its value;
  // "KEY=" alone is ignored; blank-led lines are skipped.
  ASSERT_TRUE(
      ParseXmcdEntry(" rock 12345678 entry follows\r\n# Revision: 3\n#x\r\n"
                     "DTITLE=Long Art / Part \r\nDTITLE=Two\n DTITLE=ignored\n"
                     "DYEAR=\r\nTTITLE0=A\n.\r\n",
                     map));
  EXPECT_EQ(map.at("Revision"), "4");
  EXPECT_EQ(map.at("DTITLE"), "Long Art / Part Two");
  EXPECT_EQ(map.count("DYEAR"), 0u);
  EXPECT_EQ(map.at("TTITLE0"), "A");

  // Revision at the integer limit does not overflow; "# Revision:" without the blank is ignored.
  ASSERT_TRUE(ParseXmcdEntry(" x\n# Revision: 2147483647\n.\n", map));
  EXPECT_EQ(map.at("Revision"), std::to_string(INT_MAX));
  ASSERT_TRUE(ParseXmcdEntry(" x\n# Revision:7\n.\n", map));
  EXPECT_EQ(map.count("Revision"), 0u);

  // No "." line; "." without a line end; a line without "="; last line without end.
  for (const char* bad :
       {" x\nDTITLE=a\n", " x\nDTITLE=a\n.", " x\nNOEQUALS\n.\n", " x\nDTITLE=a\nTTITLE0=b", ""}) {
    map["stale"] = "1";
    EXPECT_FALSE(ParseXmcdEntry(bad, map)) << bad;
    EXPECT_TRUE(map.empty()) << bad;
  }
}

TEST(XmcdReaderTest, UnescapesAndSplits) {
  EXPECT_EQ(UnescapeXmcdValue("a\\nb\\tc\\rd\\\\e\\xf\\"), "a\r\nb\tcd\\exf");
  struct Case {
    const char* text;
    const char* artist;
    const char* title;
  } const cases[] = {
      {"Art / Title", "Art", "Title"}, {"  Art  /  Title  ", "Art", "Title"}, {"Art / ", "", "Art"},
      {"AC/DC", "", "AC/DC"},          {"A / B / C", "A", "B / C"},           {"", "", ""},
  };
  for (const Case& c : cases) {
    std::string artist = "x", title = "y";
    SplitArtistTitle(c.text, artist, title);
    EXPECT_EQ(artist, c.artist) << c.text;
    EXPECT_EQ(title, c.title) << c.text;
  }
}

TEST(XmcdReaderTest, DiscNumberSuffix) {
  const std::tuple<const char*, int, const char*> found[] = {
      {"Greatest Hits 2", 2, "Greatest Hits"},
      {"Live - 256", 256, "Live -"},
      {"Live-12", 12, "Live"},
      {"Disc two", 2, "Disc"},
      {"Disc (TWELVE", 12, "Disc ("},
      {"Disc eleven", 11, "Disc"}};
  for (const auto& [in, expected, out] : found) {
    std::string title = in;
    int number = -1;
    EXPECT_TRUE(ParseDiscNumberSuffix(title, number)) << in;
    EXPECT_EQ(title, out);
    EXPECT_EQ(number, expected) << in;
  }
  for (const char* in :
       {"Live 300", "Live 0", "Year 0000000000000000000007", "Bone", "one", "Plain"}) {
    std::string title = in;
    int number = -1;
    EXPECT_FALSE(ParseDiscNumberSuffix(title, number)) << in;
    EXPECT_EQ(title, in);
  }
}

TEST(XmcdReaderTest, AppliesFieldsToMetadata) {
  XmcdKeywordMap map{{"DTITLE", "VARIOUS / Hits Disc 2"},
                     {"TTITLE0", "Singer / Song\\tOne"},
                     {"EXTT0", "note 0"},
                     {"TTITLE2", "Third"},
                     {"EXTT1", "orphan comment"},
                     {"EXTD", "  "},
                     {"Revision", "4"},
                     {"DYEAR", "2027"},
                     {"DGENRE", "Pop"}};
  DiscMetadata m;
  ApplyXmcdToMetadata(m, map, "rock", 3);
  EXPECT_EQ(m.Int(field::kVariousArtists, 0), 1);
  EXPECT_EQ(Str(m, field::kArtist, 0), LoadHostString(strings::kVariousArtists));
  EXPECT_EQ(Str(m, field::kTitle, 0), "Hits Disc");
  EXPECT_EQ(Str(m, field::kCategory, 0), "rock");
  EXPECT_EQ(Str(m, field::kTrackTitle, 1), "Song\tOne");
  EXPECT_EQ(Str(m, field::kArtist, 1), "Singer");
  EXPECT_EQ(Str(m, field::kFreedbComment, 1), "note 0");
  // No TTITLE1: its EXTT is dropped with it.
  EXPECT_EQ(m.Find(field::kTrackTitle, 2), nullptr);
  EXPECT_EQ(m.Find(field::kFreedbComment, 2), nullptr);
  EXPECT_EQ(Str(m, field::kTrackTitle, 3), "Third");
  EXPECT_EQ(m.Find(field::kFreedbComment, 0), nullptr);  // blank EXTD
  EXPECT_EQ(m.Int(field::kRevision, 0), 4);
  EXPECT_EQ(m.Int(field::kReleaseDate, 0), 127 << 24);
  EXPECT_EQ(Str(m, field::kGenre, 0), "Pop");
  EXPECT_EQ(Str(m, field::kGenre2, 0), "");

  // The year window and the artist-equals-title rule.
  struct Year {
    const char* dyear;
    std::optional<int32_t> packed;
  } const years[] = {{"1900", std::nullopt},
                     {"1901", 1 << 24},
                     {"2028", std::nullopt},
                     {"abc", std::nullopt},
                     {"1999", 99 << 24}};
  for (const Year& y : years) {
    DiscMetadata d;
    ApplyXmcdToMetadata(d, {{"DTITLE", "Name"}, {"DYEAR", y.dyear}}, "", 0);
    EXPECT_EQ(d.Int(field::kReleaseDate, 0), y.packed) << y.dyear;
    EXPECT_EQ(Str(d, field::kArtist, 0), "Name");
    EXPECT_EQ(Str(d, field::kTitle, 0), "Name");
    EXPECT_EQ(d.Int(field::kVariousArtists, 0), 0);
  }
  // "Artist / " ends with the separator: the text is title and then artist.
  DiscMetadata d;
  ApplyXmcdToMetadata(d, {{"DTITLE", "Various Artists / "}}, "", 0);
  EXPECT_EQ(Str(d, field::kTitle, 0), "Various Artists");
  EXPECT_EQ(d.Int(field::kVariousArtists, 0), 1);
}

TEST(DiscMetadataTest, GrowsInStepsFirstMatchWinsAndCopiesExtras) {
  DiscMetadata m;
  for (int i = 0; i < 33; ++i)
    m.SetInt(field::kRevision, 0, i);
  EXPECT_EQ(m.capacity(), 64u);
  EXPECT_EQ(m.Int(field::kRevision, 0), 0);
  m.extra_texts[1] = "extra";
  m.extra_words[2] = 7;
  const DiscMetadata copy = m;
  EXPECT_EQ(copy, m);
  EXPECT_EQ(copy.extra_texts[1], "extra");
}

TEST(XmcdWriterTest, WritesEntryWithEscapesPiecesAndYearWindowAndReadsBack) {
  EXPECT_EQ(EscapeXmcdValue("a\tb\nc\\d\re"), "a\\tb\\nc\\\\de");
  DiscSubmission s;
  s.category = "rock";
  s.disc_id = 0x0a0b0c03;
  s.track_count = 3;
  s.artist = "Zo\xC3\xAB Band";
  s.title = "Album \\ x";
  s.track_title = {std::string(200, 'x'), "Second", "Third"};
  s.track_artist = {"", "zo\xC3\xAB BAND", "Guest"};  // the 2nd differs in case only
  s.track_extended = {"", "tab\there", "line1\nline2"};
  s.frame_offsets = {150, 20000, 40000};
  s.revision = 2;
  s.year = 2027;
  s.has_year_and_genre = true;
  s.genre = "Rock";
  s.disc_length_seconds = 900;
  std::string entry, subject;
  WriteXmcdEntry(s, entry, subject);
  EXPECT_EQ(subject, "cddb rock 0a0b0c03");
  EXPECT_NE(entry.find("#\t150\r\n#\t20000\r\n#\t40000\r\n#\r\n# Disc length: 900 seconds\r\n#\r\n"
                       "# Revision: 2\r\n# Submitted via: " +
                       AgentText()),
            std::string::npos);
  // 200 characters at 78 - 7 = 71 a line: three lines.
  EXPECT_NE(entry.find("DISCID=0a0b0c03\r\nDTITLE=Zo\xC3\xAB Band / Album \\\\ x\r\nDYEAR=2027\r\n"
                       "DGENRE=Rock\r\nTTITLE0=" +
                       std::string(71, 'x') + "\r\nTTITLE0=" + std::string(71, 'x') +
                       "\r\nTTITLE0=" + std::string(58, 'x') +
                       "\r\nTTITLE1=Second\r\nTTITLE2=Guest / Third\r\nEXTD=\r\nEXTT0=\r\n"
                       "EXTT1=tab\\there\r\nEXTT2=line1\\nline2\r\nPLAYORDER=\r\n"),
            std::string::npos);
  for (size_t pos = 0, end; (end = entry.find("\r\n", pos)) != std::string::npos; pos = end + 2) {
    EXPECT_LE(end - pos, 79u);
  }
  XmcdKeywordMap map;
  ASSERT_TRUE(ParseXmcdEntry(entry + ".\r\n", map));
  DiscMetadata m;
  ApplyXmcdToMetadata(m, map, "rock", 3);
  EXPECT_EQ(Str(m, field::kArtist, 0), s.artist);
  EXPECT_EQ(Str(m, field::kTitle, 0), s.title);
  EXPECT_EQ(Str(m, field::kTrackTitle, 1), s.track_title[0]);
  EXPECT_EQ(Str(m, field::kArtist, 2), "");
  EXPECT_EQ(Str(m, field::kArtist, 3), "Guest");
  EXPECT_EQ(Str(m, field::kFreedbComment, 2), "tab\there");
  EXPECT_EQ(Str(m, field::kFreedbComment, 3), "line1\r\nline2");
  EXPECT_EQ(m.Int(field::kRevision, 0), 3);
  EXPECT_EQ(m.Int(field::kReleaseDate, 0), 127 << 24);

  s.year = 2100;
  WriteXmcdEntry(s, entry, subject);
  EXPECT_NE(entry.find("\r\nDYEAR=\r\n"), std::string::npos);
  s.has_year_and_genre = false;
  WriteXmcdEntry(s, entry, subject);
  EXPECT_EQ(entry.find("DYEAR"), std::string::npos);
}

TEST(DiscIdTest, MatchesPublishedExamples) {
  // cd-discid's documented sample disc is checked through ParseDiscIdLine.
  // One track at the usual 2-second lead-in, 60 s long: digit sum 2, 58 s.
  const uint32_t single[] = {150};
  EXPECT_EQ(ComputeFreedbDiscId(single, 1, 60), 0x02003a01u);
  EXPECT_EQ(ComputeFreedbDiscId(single, 0, 0), 0u);
}

}  // namespace
}  // namespace dischive
