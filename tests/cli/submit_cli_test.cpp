#include <fmt/format.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/cddb.h"
#include "support/loopback_http.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

class SubmitCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.server().Post("/submit.cgi",
                         [this](const httplib::Request& req, httplib::Response& res) {
                           received = req.body;
                           res.set_content(answer, "text/plain");
                         });
    ASSERT_TRUE(server.Start());
    WriteFile(home / "config" / "dischive" / "dischive.ini",
              fmt::format("[internet2]\npreconfig_http_proxy=0\nemail_address=me@example.org\n"
                          "submit_url=http://127.0.0.1:{}/submit.cgi\n",
                          server.port()));
  }

  // `before` goes before the command (options of the program itself).
  ProcessResult Submit(const nlohmann::json& entry, std::vector<std::string> args,
                       std::vector<std::string> before = {}) {
    WriteFile(home / "entry.json", entry.dump());
    args.insert(args.begin(), {"submit", "--from", (home / "entry.json").string()});
    before.insert(before.end(), args.begin(), args.end());
    return RunCli(before, home.path());
  }

  static nlohmann::json Entry() {
    return {{"category", "jazz"},
            {"discId", 0x1f02a703},
            {"trackCount", 2},
            {"artist", "Zoë"},
            {"title", "Cantar"},
            {"trackTitle", {"Á", "B"}},
            {"trackArtist", {"", "Guest"}},
            {"frameOffsets", {150, 20000, 40000}},
            {"revision", 2},
            {"year", 2001},
            {"hasYearAndGenre", true},
            {"genre", "Folk"},
            {"extended", "liner\nnotes"},
            {"discLengthSeconds", 533}};
  }

  TempDir home;
  LoopbackHttpServer server;
  std::string received;
  std::string answer = "200 OK, submission has been sent.\n";
};

TEST_F(SubmitCliTest, PrintWritesTheEntryAndSendsNothing) {
  DiscSubmission s;
  s.category = "jazz";
  s.disc_id = 0x1f02a703;
  s.track_count = 2;
  s.artist = "Zoë";
  s.title = "Cantar";
  s.track_title[0] = "Á";
  s.track_title[1] = "B";
  s.track_artist[1] = "Guest";
  s.frame_offsets = {150, 20000, 40000};
  s.revision = 2;
  s.year = 2001;
  s.has_year_and_genre = true;
  s.genre = "Folk";
  s.extended = "liner\nnotes";
  s.disc_length_seconds = 533;
  std::string entry, subject;
  WriteXmcdEntry(s, entry, subject);
  const ProcessResult r = Submit(Entry(), {"--print"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, entry);
  EXPECT_TRUE(received.empty());
}

TEST_F(SubmitCliTest, BadEntriesNameTheField) {
  const struct {
    const char* key;
    nlohmann::json value;  // null: the key is removed
    int exit_code;
    const char* message;
  } cases[] = {
      {"colour", "red", 2, "unknown key \"colour\""},
      {"discId", "1f02a703", 2, "discId must be a whole number"},
      {"frameOffsets", {150, 20000}, 2, "frameOffsets must hold trackCount + 1 = 3 values"},
      {"trackTitle", {"A", "B", "C"}, 2, "trackTitle has 3 entries, at most 2 fit"},
      {"trackCount", 100, 2, "trackCount must be a whole number from 0 to 99"},
      {"category", "Jazz", 1, "category \"Jazz\" is not one of"},
      {"trackTitle", {"Track 1", "B"}, 1, "trackTitle[0] \"Track 1\" is a default title"},
      {"artist", nullptr, 1, "artist is empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    nlohmann::json entry = Entry();
    if (c.value.is_null()) {
      entry.erase(c.key);
    } else {
      entry[c.key] = c.value;
    }
    const ProcessResult r = Submit(entry, {"--print"});
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("entry.json"), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty());
  }
}

TEST_F(SubmitCliTest, SendsByHttpAndReportsRefusals) {
  ProcessResult r = Submit(Entry(), {"--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out)["subject"], "cddb jazz 1f02a703");
  // The wire carries ISO-8859-1.
  EXPECT_NE(received.find("DTITLE=Zo\xEB / Cantar\r\n"), std::string::npos) << received;

  answer = "501 Missing DTITLE\n";
  r = Submit(Entry(), {});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("submit cddb jazz 1f02a703 to http://127.0.0.1:"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("0x8111000E"), std::string::npos) << r.err;

  r = Submit(Entry(), {"--via", "mail"}, {"--set", "internet2.email_address="});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("internet2.email_address is not set"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace dischive::test
