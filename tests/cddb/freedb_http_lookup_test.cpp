#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dischive/strings.h"
#include "dischive/version.h"
#include "support/fake_freedb.h"
#include "support/lookup_harness.h"

namespace dischive::test {
namespace {

class FreedbHttpLookupTest : public ::testing::Test {
 protected:
  FreedbHttpLookupTest() {
    AddSampleDiscs(*db);
    settings.SetString("internet2", "acquire_url", server.url());
    settings.SetString("internet2", "email_address", "me+tag@example.org");
    settings.SetInt("internet2", "preconfig_http_proxy", 0);
  }

  HResult Lookup(LookupHarness& h) {
    return h.Run([this](DiscLookupRequest& r) { return LookupDiscsFreedb(r, settings); });
  }
  // Looks up two copies of disc 0a0b0c03 and gives the first one's result.
  HResult LookupTwice() {
    LookupHarness h;
    h.AddDisc(MakeToc(0x0a0b0c03, 3));
    h.AddDisc(MakeToc(0x0a0b0c03, 3));
    EXPECT_EQ(Lookup(h), kOk);
    EXPECT_EQ(h.discs[1].result, h.discs[0].result);
    return h.discs[0].result;
  }

  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeFreedbHttpServer server{db};
  MemorySettingsStore settings;
  LookupHarness harness;
};

TEST_F(FreedbHttpLookupTest, ExactMatchSendsExactRequestsAndFillsMetadata) {
  harness.AddDisc(MakeToc(0x0a0b0c03, 3));
  ASSERT_EQ(Lookup(harness), kOk);
  ASSERT_EQ(harness.discs[0].result, kOk);
  const DiscMetadata& m = harness.discs[0].metadata;
  EXPECT_EQ(m.Text(field::kArtist, 0), "The Band");
  EXPECT_EQ(m.Text(field::kTrackTitle, 3), "Three");
  EXPECT_EQ(m.Text(field::kCategory, 0), "rock");
  EXPECT_EQ(m.Int(field::kRevision, 0), 3);
  const std::string hello =
      "&hello=me%2Btag+example.org+DiscHive+" + AgentText().substr(9) + "&proto=5";
  EXPECT_EQ(server.requests(),
            (std::vector<std::string>{
                "/~cddb/cddb.cgi?cmd=cddb+query+0a0b0c03+3+150+15150+30150+602" + hello,
                "/~cddb/cddb.cgi?cmd=cddb+read+rock+0a0b0c03" + hello}));
  EXPECT_TRUE(harness.choices_seen.empty());
  // One disc: progress carries no index.
  ASSERT_EQ(harness.progress.size(), 2u);
  EXPECT_EQ(harness.progress[0], std::make_pair(uintptr_t{0}, LoadHostString(5087)));
  EXPECT_EQ(harness.progress[1], std::make_pair(uintptr_t{0}, LoadHostString(5091)));
}

TEST_F(FreedbHttpLookupTest, Latin1AnswersAtLevelFiveBecomeUtf8) {
  harness.AddDisc(MakeToc(0x1000a002, 2));
  server.SetLineEnd("\r\n");
  ASSERT_EQ(Lookup(harness), kOk);
  EXPECT_EQ(harness.discs[0].metadata.Text(field::kArtist, 0), "Zoë");
  EXPECT_EQ(harness.discs[0].metadata.Text(field::kTrackTitle, 1), "Ä");
}

TEST_F(FreedbHttpLookupTest, CancelInvalidChoiceAndAbandon) {
  harness.AddDisc(MakeToc(0x1000a002, 2));
  harness.AddDisc(MakeToc(0x1000a002, 2));
  int asked = 0;
  harness.choose = [&](MatchChoice& c) {
    if (++asked == 1) return intptr_t{0};  // cancel the first
    c.chosen = c.count;                    // out of range for the second
    return intptr_t{1};
  };
  ASSERT_EQ(Lookup(harness), kOk);
  EXPECT_EQ(harness.discs[0].result, kAborted);
  EXPECT_EQ(harness.discs[1].result, kFreedbServiceError);
  EXPECT_EQ(server.requests().size(), 2u);  // two queries, no read

  // The host abandons the request while it is asked to choose: nothing more
  // is sent and no record is touched.
  LookupHarness second;
  second.AddDisc(MakeToc(0x1000a002, 2));
  second.AddDisc(MakeToc(0x0a0b0c03, 3));
  second.choose = [&](MatchChoice& c) {
    second.Abandon();
    c.chosen = 0;
    return intptr_t{1};
  };
  EXPECT_EQ(Lookup(second), kAborted);
  EXPECT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(second.discs[0].result, kOk);
  EXPECT_TRUE(second.discs[0].metadata.entries().empty());
}

TEST_F(FreedbHttpLookupTest, ResultCodesOfBadAnswers) {
  std::string list300 = "211 Found inexact matches\n";
  for (int i = 0; i < 300; ++i)
    list300 += fmt::format("rock {:08x} A / B\n", i);
  list300 += ".\n";
  struct Case {
    const char* name;
    std::string query_answer;  // empty: the database answers
    std::string read_answer;
    HResult expected;
  } const cases[] = {
      {"202", "202 No match for disc ID 0a0b0c03.\n", "", kNoFreedbMatch},
      {"403", "403 Database entry is corrupt.\n", "", kFreedbServiceError},
      {"empty list", "210 Found exact matches\n.\n", "", kFreedbServiceError},
      {"300 matches", list300, "", kTooManyMatches},
      {"bad match line", "211 list\nrock zz A / B\n.\n", "", kFreedbServiceError},
      {"read 401", "", "401 rock 0a0b0c03 No such CD entry in database.\n", kFreedbServiceError},
      {"read without end", "", "210 rock 0a0b0c03 entry\nDTITLE=A / B\n", kFreedbServiceError},
      {"read bad line", "", "210 rock 0a0b0c03 entry\nJUNK\n.\n", kFreedbServiceError},
      {"read ok", "", "210 rock 0a0b0c03 entry\nDTITLE=A / B\n.\n", kOk},
  };
  for (const Case& c : cases) {
    server.SetOverride([&c](const std::string& cmd) -> std::optional<std::string> {
      const bool query = cmd.rfind("cddb query", 0) == 0;
      const std::string& canned = query ? c.query_answer : c.read_answer;
      if (canned.empty()) return std::nullopt;
      return canned;
    });
    EXPECT_EQ(LookupTwice(), c.expected) << c.name;
  }
}

TEST_F(FreedbHttpLookupTest, TransportFailures) {
  struct Case {
    const char* name;
    std::function<void()> setup;
    HResult expected;
  } const cases[] = {
      {"status 500", [&] { server.SetStatus(500); }, kHttpStatusNotOk},
      {"not http", [&] { settings.SetString("internet2", "acquire_url", "ftp://x/cddb"); },
       kNotHttpAddress},
      {"bad port", [&] { settings.SetString("internet2", "acquire_url", "http://x:99999/"); },
       kNotHttpAddress},
      {"server down",
       [&] { settings.SetString("internet2", "acquire_url", "http://127.0.0.1:1/~cddb/cddb.cgi"); },
       12029u},
  };
  for (const Case& c : cases) {
    c.setup();
    EXPECT_EQ(LookupTwice(), c.expected) << c.name;
  }
}

}  // namespace
}  // namespace dischive::test
