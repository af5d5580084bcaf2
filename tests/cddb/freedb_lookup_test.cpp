#include <fmt/format.h>
#include <gtest/gtest.h>

#include <regex>

#include "cddb/cddbp.h"
#include "dischive/strings.h"
#include "dischive/version.h"
#include "support/fake_freedb.h"
#include "support/lookup_harness.h"

namespace dischive::test {
namespace {

using Action = FakeCddbpServer::Action;

class FreedbLookupTest : public ::testing::Test {
 protected:
  FreedbLookupTest() {
    AddSampleDiscs(*db);
    settings.SetString("internet2", "cddb_server", "127.0.0.1");
    settings.SetInt("internet2", "cddb_port", server.port());
    settings.SetString("internet2", "email_address", "me@example.org");
    settings.SetString("internet2", "acquire_url", http.url());
    settings.SetInt("internet2", "preconfig_http_proxy", 0);
    settings.SetInt("internet2", "cddb_timeout", 1);
  }

  // Looks up one disc per table of contents.
  LookupHarness& Run(const std::vector<DiscToc>& tocs, std::string* transcript = nullptr) {
    LookupHarness& h = *harnesses.emplace_back(std::make_unique<LookupHarness>());
    for (const DiscToc& toc : tocs)
      h.AddDisc(toc);
    EXPECT_EQ(
        h.Run([&](DiscLookupRequest& r) { return LookupDiscsCddbp(r, settings, transcript); }),
        kOk);
    return h;
  }
  HResult LookupHttp(LookupHarness& h) {
    return h.Run([this](DiscLookupRequest& r) { return LookupDiscsFreedb(r, settings); });
  }
  // Looks up two copies of disc 0a0b0c03 over HTTP; both get the same result.
  HResult LookupTwiceOverHttp() {
    LookupHarness h;
    h.AddDisc(MakeToc(0x0a0b0c03, 3));
    h.AddDisc(MakeToc(0x0a0b0c03, 3));
    EXPECT_EQ(LookupHttp(h), kOk);
    EXPECT_EQ(h.discs[1].result, h.discs[0].result);
    return h.discs[0].result;
  }

  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeCddbpServer server{db};
  FakeFreedbHttpServer http{db};
  MemorySettingsStore settings;
  std::vector<std::unique_ptr<LookupHarness>> harnesses;
  LookupHarness harness;
};

// Four discs: a choice among inexact matches, a name match the host already
// knows, an exact match and no match; both transports give the same results.
TEST_F(FreedbLookupTest, SameMetadataAsOverHttp) {
  const std::vector<DiscToc> tocs = {MakeToc(0x1000a002, 2), MakeToc(0x2000b002, 2),
                                     MakeToc(0x0a0b0c03, 3), MakeToc(0x0dead001, 1)};
  LookupHarness over_http, over_socket;
  for (LookupHarness* h : {&over_http, &over_socket}) {
    for (const DiscToc& toc : tocs)
      h->AddDisc(toc);
    h->discs[1].metadata.SetText(field::kArtist, 0, "The Band");
    h->discs[1].metadata.SetText(field::kTitle, 0, "Second");
    h->request.match_by_name = true;
    h->choose = [](MatchChoice& c) {
      EXPECT_EQ(c.chosen, 0xFFFFFFFFu);
      c.chosen = 1;
      return intptr_t{1};
    };
  }
  settings.SetInt("internet2", "cddb_proto", 6);
  ASSERT_EQ(over_http.Run([&](DiscLookupRequest& r) { return LookupDiscsFreedb(r, settings); }),
            kOk);
  ASSERT_EQ(over_socket.Run([&](DiscLookupRequest& r) { return LookupDiscsCddbp(r, settings); }),
            kOk);
  for (size_t i = 0; i < tocs.size(); ++i) {
    EXPECT_EQ(over_socket.discs[i].result, over_http.discs[i].result) << i;
    EXPECT_EQ(over_socket.discs[i].metadata, over_http.discs[i].metadata) << i;
  }
  for (const std::string& r : http.requests())
    EXPECT_NE(r.find("&proto=6"), std::string::npos) << r;
  ASSERT_EQ(over_http.choices_seen.size(), 1u);  // only the first disc asked
  EXPECT_EQ(over_http.choices_seen[0][0], (FreedbMatch{0x1000a002, "Zoë", "Cantar", "misc"}));
  EXPECT_EQ(over_socket.choices_seen, over_http.choices_seen);
  EXPECT_EQ(over_http.discs[0].result, kOk);
  EXPECT_EQ(over_http.discs[0].metadata.Text(field::kArtist, 0), "Other");  // chosen 2nd
  EXPECT_EQ(over_http.discs[0].metadata.Text(field::kTrackTitle, 2), "Y");
  // The caller's spelling is kept; the tracks come from the entry.
  EXPECT_EQ(over_http.discs[1].metadata.Text(field::kArtist, 0), "The Band");
  EXPECT_EQ(over_http.discs[1].metadata.Text(field::kTitle, 0), "Second");
  EXPECT_EQ(over_http.discs[1].metadata.Text(field::kTrackTitle, 2), "S2");
  EXPECT_EQ(over_http.discs[3].result, kNoFreedbMatch);
  EXPECT_EQ(server.connections(), 1);
  // Progress: per disc (index | count << 16); the socket adds connecting,
  // connected and closing.
  const auto params = [](const LookupHarness& h) {
    std::vector<uintptr_t> out;
    for (const auto& p : h.progress)
      out.push_back(p.first);
    return out;
  };
  EXPECT_EQ(params(over_http), (std::vector<uintptr_t>{0, 0x40000, 0x40001, 0x40002, 0x40003}));
  EXPECT_EQ(params(over_socket),
            (std::vector<uintptr_t>{0, 0, 0x40000, 0x40001, 0x40002, 0x40003, 0}));
  EXPECT_EQ(over_socket.progress[0].second, "Connecting to 127.0.0.1...");
}

TEST_F(FreedbLookupTest, HttpExactMatchSendsExactRequestsAndFillsMetadata) {
  settings.SetString("internet2", "email_address", "me+tag@example.org");
  harness.AddDisc(MakeToc(0x0a0b0c03, 3));
  ASSERT_EQ(LookupHttp(harness), kOk);
  ASSERT_EQ(harness.discs[0].result, kOk);
  const DiscMetadata& m = harness.discs[0].metadata;
  EXPECT_EQ(m.Text(field::kArtist, 0), "The Band");
  EXPECT_EQ(m.Text(field::kTrackTitle, 3), "Three");
  EXPECT_EQ(m.Text(field::kCategory, 0), "rock");
  EXPECT_EQ(m.Int(field::kRevision, 0), 3);
  const std::string hello =
      "&hello=me%2Btag+example.org+DiscHive+" + AgentText().substr(9) + "&proto=5";
  EXPECT_EQ(http.requests(),
            (std::vector<std::string>{
                "/~cddb/cddb.cgi?cmd=cddb+query+0a0b0c03+3+150+15150+30150+602" + hello,
                "/~cddb/cddb.cgi?cmd=cddb+read+rock+0a0b0c03" + hello}));
  EXPECT_TRUE(harness.choices_seen.empty());
  // One disc: progress carries no index.
  ASSERT_EQ(harness.progress.size(), 2u);
  EXPECT_EQ(harness.progress[0], std::make_pair(uintptr_t{0}, LoadHostString(5087)));
  EXPECT_EQ(harness.progress[1], std::make_pair(uintptr_t{0}, LoadHostString(5091)));
}

TEST_F(FreedbLookupTest, HttpLatin1AnswersAtLevelFiveBecomeUtf8) {
  harness.AddDisc(MakeToc(0x1000a002, 2));
  http.SetLineEnd("\r\n");
  ASSERT_EQ(LookupHttp(harness), kOk);
  EXPECT_EQ(harness.discs[0].metadata.Text(field::kArtist, 0), "Zoë");
  EXPECT_EQ(harness.discs[0].metadata.Text(field::kTrackTitle, 1), "Ä");
}

TEST_F(FreedbLookupTest, HttpCancelInvalidChoiceAndAbandon) {
  harness.AddDisc(MakeToc(0x1000a002, 2));
  harness.AddDisc(MakeToc(0x1000a002, 2));
  int asked = 0;
  harness.choose = [&](MatchChoice& c) {
    if (++asked == 1) return intptr_t{0};  // cancel the first
    c.chosen = c.count;                    // out of range for the second
    return intptr_t{1};
  };
  ASSERT_EQ(LookupHttp(harness), kOk);
  EXPECT_EQ(harness.discs[0].result, kAborted);
  EXPECT_EQ(harness.discs[1].result, kFreedbServiceError);
  EXPECT_EQ(http.requests().size(), 2u);  // two queries, no read

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
  EXPECT_EQ(LookupHttp(second), kAborted);
  EXPECT_EQ(http.requests().size(), 3u);
  EXPECT_EQ(second.discs[0].result, kOk);
  EXPECT_TRUE(second.discs[0].metadata.entries().empty());
}

TEST_F(FreedbLookupTest, HttpBadAnswersAndTransportFailures) {
  std::string list300 = "211 Found inexact matches\n";
  for (int i = 0; i < 300; ++i)
    list300 += fmt::format("rock {:08x} A / B\n", i);
  list300 += ".\n";
  // Canned answers to the query and the read (empty: the database answers).
  const auto answer = [this](std::string query, std::string read) {
    return [this, query, read] {
      http.SetOverride([query, read](const std::string& cmd) -> std::optional<std::string> {
        const std::string& canned = cmd.rfind("cddb query", 0) == 0 ? query : read;
        if (canned.empty()) return std::nullopt;
        return canned;
      });
    };
  };
  const auto url = [this](const char* address) {
    return [this, address] { settings.SetString("internet2", "acquire_url", address); };
  };
  struct Case {
    const char* name;
    std::function<void()> setup;
    HResult expected;
  } const cases[] = {
      {"202", answer("202 No match for disc ID 0a0b0c03.\n", ""), kNoFreedbMatch},
      {"403", answer("403 Database entry is corrupt.\n", ""), kFreedbServiceError},
      {"empty list", answer("210 Found exact matches\n.\n", ""), kFreedbServiceError},
      {"300 matches", answer(list300, ""), kTooManyMatches},
      {"bad match line", answer("211 list\nrock zz A / B\n.\n", ""), kFreedbServiceError},
      {"read 401", answer("", "401 rock 0a0b0c03 No such CD entry in database.\n"),
       kFreedbServiceError},
      {"read without end", answer("", "210 rock 0a0b0c03 entry\nDTITLE=A / B\n"),
       kFreedbServiceError},
      {"read bad line", answer("", "210 rock 0a0b0c03 entry\nJUNK\n.\n"), kFreedbServiceError},
      {"read ok", answer("", "210 rock 0a0b0c03 entry\nDTITLE=A / B\n.\n"), kOk},
      {"status 500", [this] { http.SetStatus(500); }, kHttpStatusNotOk},
      {"not http", url("ftp://x/cddb"), kNotHttpAddress},
      {"bad port", url("http://x:99999/"), kNotHttpAddress},
      {"server down", url("http://127.0.0.1:1/~cddb/cddb.cgi"), 12029u},
  };
  for (const Case& c : cases) {
    c.setup();
    EXPECT_EQ(LookupTwiceOverHttp(), c.expected) << c.name;
  }
}

TEST_F(FreedbLookupTest, TranscriptMatchesTheExchange) {
  std::string transcript;
  ASSERT_EQ(Run({MakeToc(0x0a0b0c03, 3)}, &transcript).discs[0].result, kOk);
  const std::string agent = AgentText();
  EXPECT_EQ(server.received(), "cddb hello me example.org " + agent +
                                   "\nproto 5\ncddb query 0a0b0c03 3 150 15150 30150 602\n"
                                   "cddb read rock 0a0b0c03\nquit\n");
  const std::string entry = std::regex_replace(
      MakeXmcd(0x0a0b0c03, "The Band / First Album", 1999, "Rock", {"One", "Two", "Three"}, 2),
      std::regex("\n"), "\r\n");
  EXPECT_EQ(
      transcript,
      fmt::format("Connecting to 127.0.0.1:{}\r\n<| 201 fake CDDBP server v1.5.2PL0 ready at Sat "
                  "Nov 21 12:00:00 2026\r\n>| cddb hello me example.org {}\r\n<| 200 Hello and "
                  "welcome me@example.org running {}.\r\n>| proto 5\r\n<| 201 OK, CDDB protocol "
                  "level now: 5\r\n>| cddb query 0a0b0c03 3 150 15150 30150 602\r\n<| 200 rock "
                  "0a0b0c03 The Band / First Album\r\n>| cddb read rock 0a0b0c03\r\n<| 210 rock "
                  "0a0b0c03 CD database entry follows (until terminating `.')\r\n",
                  server.port(), agent, agent) +
          entry + ".\r\n>| quit\r\n");
}

TEST_F(FreedbLookupTest, RefusalsAndMalformedAnswers) {
  struct Case {
    const char* command;  // the override answers lines starting with it
    std::string reply;
    bool close;
    HResult expected;
  };
  const Case cases[] = {
      {"cddb hello", "431 Handshake not successful, closing connection.\r\n", false,
       kCddbpHelloRefused},
      {"cddb query", "403 Database entry is corrupt.\r\n", false, kCddbpQueryRefused},
      {"cddb read", "401 rock 0a0b0c03 No such CD entry in database.\r\n", false,
       kCddbpReadRefused},
      {"cddb hello", "612 strange\r\n", false, kFreedbServiceError},
      {"cddb hello", "241 strange\r\n", false, kFreedbServiceError},  // second digit 4
      {"cddb hello", "2x0 strange\r\n", false, kFreedbServiceError},
      {"cddb query", "230 what\r\n", false, kFreedbServiceError},
      {"cddb read", "210" + std::string(40000, 'x'), false, kFreedbServiceError},  // no line end
      {"cddb read", "210 rock 0a0b0c03 entry\r\nJUNK\r\n.\r\n", false, kFreedbServiceError},
      {"cddb query", "200rock 0a0b0c03 A / B\r\n", false, kFreedbServiceError},
      {"cddb query", "211 Found inexact matches\r\nrock 0a0b0c03 A / B\r\n", true, 10054},
      {"cddb hello", "200 Hello", true, 10054},
      {"cddb read", "", false, 10060},  // never answers
  };
  for (const Case& c : cases) {
    server.SetOverride([&c](const std::string& line) -> std::optional<Action> {
      if (line.rfind(c.command, 0) != 0) return std::nullopt;
      return Action{c.reply, c.close, c.reply.empty()};
    });
    const LookupHarness& h = Run({MakeToc(0x0a0b0c03, 3), MakeToc(0x0a0b0c03, 3)});
    EXPECT_EQ(h.discs[0].result, c.expected) << c.command << ": " << c.reply.substr(0, 40);
  }
  server.SetOverride(nullptr);
  server.SetBanner("432 No connections allowed: permission denied\r\n");
  EXPECT_EQ(Run({MakeToc(0x0a0b0c03, 3)}).discs[0].result, kCddbpConnectRefused);
}

TEST_F(FreedbLookupTest, CutEntryFailsAndTheNextDiscReconnects) {
  std::string huge = "# Revision: 1\n";
  for (int i = 0; huge.size() < 40000; ++i)
    huge += fmt::format("EXTD=line {} of padding\n", i);
  db->Add({"data", 0x3000c001, 0, true, "Big / Entry", huge});
  const int before = server.connections();
  const LookupHarness& h = Run({MakeToc(0x3000c001, 1), MakeToc(0x0a0b0c03, 3)});
  EXPECT_EQ(h.discs[0].result, kFreedbServiceError);
  EXPECT_EQ(h.discs[1].result, kOk);
  EXPECT_EQ(h.discs[1].metadata.Text(field::kTrackTitle, 3), "Three");
  EXPECT_EQ(server.connections() - before, 2);
}

// The first disc of a lookup is bounded too: its deadline runs from the
// start of the dialogue, connecting included.
TEST_F(FreedbLookupTest, TricklingServerEndsAtTheRequestDeadline) {
  // Every byte arrives well within the 1 s idle time-out, so only the overall
  // deadline can end the read (the whole entry would take minutes).
  settings.SetInt("internet2", "request_deadline", 2);
  server.SetOverride([](const std::string& line) -> std::optional<Action> {
    if (line.rfind("cddb read", 0) != 0) return std::nullopt;
    return Action{"210 rock 0a0b0c03 entry\r\n" + std::string(400, '#'), false, false,
                  std::chrono::milliseconds(500)};
  });
  const auto start = std::chrono::steady_clock::now();
  const LookupHarness& h = Run({MakeToc(0x0a0b0c03, 3)});
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(h.discs[0].result, detail::kDialogueTimedOut);
  EXPECT_NE(FormatErrorMessage(h.discs[0].result).find("timed out"), std::string::npos)
      << FormatErrorMessage(h.discs[0].result);
  EXPECT_LT(took, std::chrono::seconds(5));
  server.SetOverride(nullptr);
}

TEST_F(FreedbLookupTest, ConnectionRefusedFailsEveryDisc) {
  settings.SetInt("internet2", "cddb_port", 1);
  const LookupHarness& h = Run({MakeToc(0x0a0b0c03, 3), MakeToc(0x0a0b0c03, 3)});
  EXPECT_EQ(h.discs[0].result, 10061u);
  EXPECT_EQ(h.discs[1].result, 10061u);
}

TEST_F(FreedbLookupTest, SkippingALineStopsWhenTheServerCloses) {
  // A refusing banner whose line never ends before the server hangs up: the
  // skip loop must end with an error instead of receiving nothing forever.
  server.SetBanner("432 banner without end");
  detail::CddbpConnection connection;
  connection.channel().SetReceiveTimeout(std::chrono::seconds(5));
  try {
    connection.Connect("127.0.0.1", static_cast<uint16_t>(server.port()));
    ADD_FAILURE() << "connected";
  } catch (const detail::ProtocolError& e) {
    EXPECT_EQ(e.code, detail::kConnectionClosed);
  }
}

}  // namespace
}  // namespace dischive::test
