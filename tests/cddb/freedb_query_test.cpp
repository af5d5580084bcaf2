#include <gtest/gtest.h>

#include <fmt/format.h>

#include "dischive/cddb.h"
#include "dischive/strings.h"
#include "dischive/version.h"

namespace dischive {
namespace {

TEST(FreedbQueryTest, BuildsQueryAndReadStrings) {
  DiscToc toc{0x0a0b0c03, 0, 3, {150, 20000, 40000}, 900};
  const std::string agent = "+DiscHive+" + AgentText().substr(9);
  EXPECT_EQ(
      BuildQueryRequest(toc, "me@example.org"),
      "?cmd=cddb+query+0a0b0c03+3+150+20000+40000+900&hello=me+example.org" + agent + "&proto=5");
  toc.alt_disc_id = 0xff;  // queried instead of the id
  EXPECT_EQ(
      BuildQueryRequest(toc, "nobody", 6),
      "?cmd=cddb+query+000000ff+3+150+20000+40000+900&hello=nobody+nobody" + agent + "&proto=6");
  EXPECT_EQ(BuildReadRequest(0x1234, "rock", "a+b&c@x.org"),
            "?cmd=cddb+read+rock+00001234&hello=a%2Bb%26c+x.org" + agent + "&proto=5");
}

TEST(FreedbQueryTest, ParsesMatchLines) {
  struct Case {
    const char* line;
    uint32_t id;
    const char* category;
    const char* artist;
    const char* title;
  } const cases[] = {
      {"rock 0a0b0c03 Band / Album\r\n", 0x0a0b0c03, "rock", "Band", "Album"},
      {"misc ABCDEF01 AC/DC/Back\n", 0xabcdef01, "misc", "AC", "DC/Back"},
      {"misc 1 Just One\n", 1, "misc", "Just One", "Just One"},
      {"misc 1 / Title\n", 1, "misc", "Title", "Title"},
      {"misc 1 Artist / \n", 1, "misc", "Artist", "Artist"},
      {"misc 1\n", 1, "misc", nullptr, ""},
  };
  for (const Case& c : cases) {
    FreedbMatch m;
    const auto used = ParseMatchLine(c.line, m);
    ASSERT_TRUE(used) << c.line;
    EXPECT_EQ(*used, std::string_view(c.line).size());
    EXPECT_EQ(m.disc_id, c.id);
    EXPECT_EQ(m.category, c.category);
    EXPECT_EQ(m.artist, c.artist ? c.artist : LoadHostString(strings::kFreedbUnknownArtist))
        << c.line;
    EXPECT_EQ(m.title, c.title) << c.line;
  }
  for (const char* bad : {"misc 123456789 Too long\n", "misc 12g4 Bad hex\n",
                          " 12345678 No category\n", "misc 12345678 No line end", "nocategory\n"}) {
    FreedbMatch m;
    EXPECT_FALSE(ParseMatchLine(bad, m)) << bad;
  }
}

std::string List(const char* code, int lines) {
  std::string text = std::string(code) + " Found matches, list follows (until terminating `.')\r\n";
  for (int i = 0; i < lines; ++i)
    text += fmt::format("rock {:08x} A{} / T{}\r\n", i, i, i);
  return text + ".\r\n";
}

TEST(FreedbQueryTest, ParsesQueryAnswers) {
  std::vector<FreedbMatch> m;
  EXPECT_EQ(ParseQueryResponse("202 No match for disc ID 0a0b0c03.\r\n", m, 256), kQueryNone);
  EXPECT_EQ(ParseQueryResponse("200 rock 0a0b0c03 Band / Album\r\n", m, 256), kQueryExact);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].title, "Album");
  EXPECT_EQ(ParseQueryResponse("200 rock 0a0b0c03 Band / Album\r\n", m, 0), kQueryOverflow);
  EXPECT_EQ(ParseQueryResponse(List("211", 3), m, 256), kQueryList);
  EXPECT_EQ(m.size(), 3u);
  EXPECT_EQ(m[2].artist, "A2");
  EXPECT_EQ(ParseQueryResponse(List("210", 256), m, 256), kQueryList);
  EXPECT_EQ(m.size(), 256u);
  EXPECT_EQ(ParseQueryResponse(List("211", 300), m, 256), kQueryOverflow);
  EXPECT_EQ(ParseQueryResponse(List("210", 0), m, 256), kQueryList);
  EXPECT_TRUE(m.empty());
  // Bare "\n" line ends work as well.
  EXPECT_EQ(ParseQueryResponse("211 list\nrock 1 A / B\nmisc 2 C / D\n.\n", m, 256), kQueryList);
  EXPECT_EQ(m.size(), 2u);
  for (const char* bad : {"", "20", "403 Database entry is corrupt.\r\n", "211 no line end",
                          "211 list\r\nrock 1 A / B\r\n", "211 list\r\nbroken\r\n.\r\n",
                          "200 rock\r\n", "2000 x\r\n"}) {
    EXPECT_EQ(ParseQueryResponse(bad, m, 256), kQueryBad) << bad;
    EXPECT_TRUE(m.empty());
  }
}

TEST(FreedbQueryTest, FindsMatchByArtistAndTitleExactly) {
  std::vector<FreedbMatch> m = {
      {1, "Band", "Album", "rock"}, {2, "band", "Album 2", "rock"}, {3, "Band", "Album 2", "misc"}};
  size_t index = 99;
  EXPECT_TRUE(FindMatchByArtistTitle("Band", "Album 2", m, index));
  EXPECT_EQ(index, 2u);
  EXPECT_FALSE(FindMatchByArtistTitle("BAND", "Album", m, index));
  EXPECT_FALSE(FindMatchByArtistTitle("Band", "Album", {}, index));
}

}  // namespace
}  // namespace dischive
