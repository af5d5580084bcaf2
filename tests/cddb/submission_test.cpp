#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "cddb/submission_internal.h"
#include "dischive/cddb.h"
#include "dischive/http.h"
#include "support/loopback_http.h"
#include "support/smtp_peer.h"

namespace dischive::test {
namespace {

DiscSubmission ThreeTracks() {
  DiscSubmission s;
  s.category = "rock";
  s.disc_id = 0x1f02a703;
  s.track_count = 3;
  s.artist = "The Band";
  s.title = "Songs";
  s.track_title[0] = "One";
  s.track_title[1] = "Two";
  s.track_title[2] = "Three";
  s.frame_offsets = {150, 20000, 40000, 60000};
  s.revision = 1;
  s.year = 1999;
  s.has_year_and_genre = true;
  s.genre = "Rock";
  s.disc_length_seconds = 800;
  return s;
}

TEST(SubmitValidationTest, FirstFailingCheckDecides) {
  struct Case {
    const char* name;
    std::function<void(DiscSubmission&)> change;
    HResult code;
    const char* problem;  // part of the message naming the field
  };
  const Case cases[] = {
      {"valid", [](DiscSubmission&) {}, kOk, ""},
      {"disc id 0", [](DiscSubmission& s) { s.disc_id = 0; }, kInvalidSubmission, "discId"},
      {"disc id all ones", [](DiscSubmission& s) { s.disc_id = 0xFFFFFFFF; }, kInvalidSubmission,
       "discId"},
      {"no tracks", [](DiscSubmission& s) { s.track_count = 0; }, kInvalidSubmission, "trackCount"},
      {"100 tracks", [](DiscSubmission& s) { s.track_count = 100; }, kInvalidSubmission,
       "trackCount"},
      {"no artist", [](DiscSubmission& s) { s.artist.clear(); }, kInvalidSubmission, "artist"},
      {"no title", [](DiscSubmission& s) { s.title.clear(); }, kInvalidSubmission, "title"},
      {"no category", [](DiscSubmission& s) { s.category.clear(); }, kInvalidSubmission,
       "category"},
      {"capital category", [](DiscSubmission& s) { s.category = "Rock"; }, kInvalidCategory,
       "category \"Rock\""},
      // The category is checked before the tracks.
      {"capital category and no track title",
       [](DiscSubmission& s) {
         s.category = "Jazz";
         s.track_title[1].clear();
       },
       kInvalidCategory, "category"},
      {"empty track title", [](DiscSubmission& s) { s.track_title[1].clear(); }, kInvalidSubmission,
       "trackTitle[1]"},
      {"default title", [](DiscSubmission& s) { s.track_title[2] = "Track 7"; }, kInvalidSubmission,
       "trackTitle[2]"},
      {"word Track alone", [](DiscSubmission& s) { s.track_title[2] = "Track"; }, kOk, ""},
      {"Track and a word", [](DiscSubmission& s) { s.track_title[2] = "Track 7b"; }, kOk, ""},
      {"offsets equal", [](DiscSubmission& s) { s.frame_offsets[1] = 150; }, kInvalidSubmission,
       "frameOffsets[0]"},
      {"offsets falling", [](DiscSubmission& s) { s.frame_offsets[2] = 10000; }, kInvalidSubmission,
       "frameOffsets[1]"},
      {"lead-out before the last track", [](DiscSubmission& s) { s.frame_offsets[3] = 0; },
       kInvalidSubmission, "frameOffsets[2]"},
      {"99 tracks with a lead-out",
       [](DiscSubmission& s) {
         s.track_count = 99;
         for (uint32_t k = 0; k <= 99; ++k)
           s.frame_offsets[k] = 150 + k * 1000;
         for (uint32_t k = 0; k < 99; ++k)
           s.track_title[k] = fmt::format("Song {}", k + 1);
       },
       kOk, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    DiscSubmission s = ThreeTracks();
    c.change(s);
    std::string problem;
    EXPECT_EQ(ValidateSubmission(s, &problem), c.code);
    EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
  }
}

TEST(QuotedPrintableTest, EncodesAsTheWireNeeds) {
  const std::string plain200(200, 'a');
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"plain text\r\n", "plain text\r\n"},
      {"a=b\tc\r\n", "a=3Db\tc\r\n"},
      {"\x01\x7f\xe9~", "=01=7F=E9~"},
      // Line ends: CR LF and a lone CR both end a line; a lone LF is a byte.
      {"x\ry\nz", "x\r\ny=0Az"},
      // White space that would end a line survives as an encoded character.
      {"end \r\ntab\t\r\nlast ", "end=20\r\ntab=09\r\nlast=20"},
      {plain200,
       std::string(73, 'a') + "=\r\n" + std::string(73, 'a') + "=\r\n" + std::string(54, 'a')},
      // A blank that a soft break would end a line with.
      {std::string(72, 'a') + " b", std::string(72, 'a') + "=20=\r\nb"},
      // No soft break before a line end, even past 72 characters.
      {std::string(73, 'a') + "\r\nb", std::string(73, 'a') + "\r\nb"},
      // An encoded character may take a line to 76 characters with its break.
      {std::string(72, 'a') + "==", std::string(72, 'a') + "=3D=\r\n=3D"},
  };
  for (const auto& c : cases) {
    std::string text = c.in;
    EncodeQuotedPrintable(text);
    EXPECT_EQ(text, c.out) << c.in;
  }
}

TEST(SubmitHelpersTest, HeloNameAndDotStuffing) {
  EXPECT_EQ(HeloNameFrom("my host!"), "my_host_");
  EXPECT_EQ(HeloNameFrom("box-1.example_net"), "box_1.example_net");
  EXPECT_EQ(HeloNameFrom(""), "localhost");
  EXPECT_EQ(HeloNameFrom(std::string(300, 'h')).size(), 255u);
  EXPECT_EQ(detail::StuffDots(".a\r\n..b\r\nc.\r\n.\r\n"), "..a\r\n...b\r\nc.\r\n..\r\n");
  const struct {
    const char* address;
    bool plain;
  } addresses[] = {{"me@example.org", true},          {"", false},
                   {"me@example.org\r\nRSET", false}, {"a b@example.org", false},
                   {"<me@example.org>", false},       {"me\"@example.org", false}};
  for (const auto& a : addresses)
    EXPECT_EQ(detail::IsPlainAddress(a.address), a.plain) << a.address;
}

// The script answers with `status` and `body`; what it received is kept.
class SubmitHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.server().Post("/~cddb/submit.cgi",
                          [this](const httplib::Request& req, httplib::Response& res) {
                            received_ = req;
                            res.status = status_;
                            res.set_content(answer_, "text/plain");
                          });
    server_.server().Post("/slow", [](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink& sink) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return sink.write("2", 1);
      });
    });
    ASSERT_TRUE(server_.Start());
    settings_.SetString(kFreedbSettingsGroup, "submit_url",
                        fmt::format("http://127.0.0.1:{}/~cddb/submit.cgi", server_.port()));
    settings_.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");
    settings_.SetInt(kFreedbSettingsGroup, "preconfig_http_proxy", 0);
  }

  LoopbackHttpServer server_;
  MemorySettingsStore settings_;
  httplib::Request received_;
  int status_ = 200;
  std::string answer_;
};

TEST_F(SubmitHttpTest, PostsHeadersAndEntryAndMapsTheAnswer) {
  const struct {
    int status;
    const char* body;
    HResult code;
  } answers[] = {
      {200, "200 OK, submission has been sent.\n", kOk},
      {200, "500 Internal error\n", kSubmitScript500},
      {200, "501 Entry rejected: bad DTITLE\n", kSubmitScript501},
      {200, "Thank you\n", kFreedbServiceError},
      {200, "2000\n", kFreedbServiceError},
      {200, "", kFreedbServiceError},
      {404, "200", kHttpStatusNotOk},
  };
  const DiscSubmission s = ThreeTracks();
  std::string entry, subject;
  WriteXmcdEntry(s, entry, subject);
  for (const auto& a : answers) {
    SCOPED_TRACE(a.body);
    status_ = a.status;
    answer_ = a.body;
    std::string transcript;
    EXPECT_EQ(SubmitEntryByHttp(s, settings_, &transcript), a.code);
    EXPECT_EQ(received_.body, entry);
    EXPECT_EQ(received_.get_header_value("Category"), "rock");
    EXPECT_EQ(received_.get_header_value("Discid"), "1f02a703");
    EXPECT_EQ(received_.get_header_value("User-Email"), "me@example.org");
    EXPECT_EQ(received_.get_header_value("Submit-mode"), "submit");
    EXPECT_EQ(received_.get_header_value("X-Cddbd-Note"),
              std::string("submitted by DiscHive - send mail to ") + kSubmissionContact);
    // The order on the wire, as the transcript shows what was sent.
    const size_t category = transcript.find(">| Category: rock\r\n");
    ASSERT_NE(category, std::string::npos) << transcript;
    EXPECT_NE(transcript.find(">| Category: rock\r\n>| Discid: 1f02a703\r\n>| User-Email: "
                              "me@example.org\r\n>| X-Cddbd-Note: submitted by DiscHive - send "
                              "mail to "),
              std::string::npos);
    EXPECT_NE(transcript.find(">| Submit-mode: submit\r\n"), std::string::npos);
    EXPECT_NE(transcript.find(">| DISCID=1f02a703\r\n"), std::string::npos);
    EXPECT_NE(transcript.find("<| " + std::string(a.body).substr(0, 3)), std::string::npos);
  }
}

TEST_F(SubmitHttpTest, RefusesBadAddressesAndEndsByTheDeadline) {
  const DiscSubmission s = ThreeTracks();
  settings_.SetString(kFreedbSettingsGroup, "submit_url", "ftp://127.0.0.1/submit");
  EXPECT_EQ(SubmitEntryByHttp(s, settings_), kNotHttpAddress);
  settings_.SetString(kFreedbSettingsGroup, "submit_url",
                      fmt::format("http://127.0.0.1:{}/~cddb/submit.cgi", server_.port()));
  settings_.SetString(kFreedbSettingsGroup, "email_address", "me@example.org\r\nX-Evil: 1");
  EXPECT_EQ(SubmitEntryByHttp(s, settings_), kInvalidArgument);
  settings_.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");

  // An answer that trickles in forever ends by the request deadline.
  settings_.SetString(kFreedbSettingsGroup, "submit_url",
                      fmt::format("http://127.0.0.1:{}/slow", server_.port()));
  settings_.SetInt(kFreedbSettingsGroup, "request_deadline", 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SubmitEntryByHttp(s, settings_), 12002u);  // timed out
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

class SubmitMailTest : public ::testing::Test {
 protected:
  void StartPeer(const std::string& mode, const std::vector<std::string>& refusals = {}) {
    ASSERT_TRUE(peer_.Start(mode, refusals)) << peer_.error();
    settings_.SetString(kFreedbSettingsGroup, "smtp_server", "127.0.0.1");
    settings_.SetInt(kFreedbSettingsGroup, "smtp_server_port", peer_.port());
    settings_.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");
    settings_.SetString(kFreedbSettingsGroup, "smtp_submit_address", "submit@example.org");
  }

  SmtpPeer peer_;
  MemorySettingsStore settings_;
};

TEST_F(SubmitMailTest, RealServerReceivesTheEntryByteForByte) {
  StartPeer("real");
  DiscSubmission s = ThreeTracks();
  s.track_title[0] = std::string(200, 't');  // three TTITLE0 lines
  // "EXTD=" is encoded "EXTD=3D": the soft break of its first line falls
  // before character 66 of the value, a ".", which then begins a line of the
  // message; in EXTT1 a blank would end an encoded line before its break.
  s.extended = std::string(66, 'e') + ".hidden after a dot";
  s.track_extended[1] = std::string(64, 'x') + " y";
  std::string entry, subject;
  WriteXmcdEntry(s, entry, subject);

  std::string transcript;
  ASSERT_EQ(SubmitEntryByMail(s, settings_, &transcript), kOk) << transcript;
  const std::string raw = ReadFile(peer_.folder() / "mail-1.eml");
  ASSERT_NE(raw.find("=\r\n.hidde"), std::string::npos) << raw;
  EXPECT_NE(raw.find("=20=\r\ny"), std::string::npos) << raw;
  EXPECT_EQ(ReadFile(peer_.folder() / "mail-1.body"), entry);

  const auto info = nlohmann::json::parse(ReadFile(peer_.folder() / "mail-1.json"));
  EXPECT_EQ(info["helo"], GetHeloName());
  EXPECT_EQ(info["mail_from"], "me@example.org");
  EXPECT_EQ(info["rcpt_tos"], nlohmann::json::array({"submit@example.org"}));
  EXPECT_TRUE(info["defects"].empty()) << info["defects"];
  std::vector<std::string> names;
  for (const auto& header : info["headers"])
    names.push_back(header[0]);
  const std::vector<std::string> expected = {
      "From",         "To",           "Subject",
      "MIME-Version", "Content-Type", "Content-Transfer-Encoding",
      "X-Cddbd-Note", "Date",         "Message-ID"};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(info["headers"][0][1], "\"DiscHive user\" <me@example.org>");
  EXPECT_EQ(info["headers"][2][1], "cddb rock 1f02a703");
  EXPECT_EQ(info["headers"][4][1], "text/plain; charset=us-ascii");
  EXPECT_NE(transcript.find(">| HELO " + GetHeloName() + "\r\n"), std::string::npos);
  EXPECT_NE(transcript.find(">| MAIL FROM:<me@example.org>\r\n<| 250"), std::string::npos);
  EXPECT_NE(transcript.find(">| QUIT\r\n<| 221"), std::string::npos);
}

TEST_F(SubmitMailTest, EachRefusedStepGivesItsCode) {
  const struct {
    const char* mode;
    std::vector<std::string> refusals;
    HResult code;
  } cases[] = {
      {"greeting554", {}, kSmtpConnectRefused},
      {"real", {"HELO=501"}, kSmtpHeloRefused},
      {"real", {"MAIL=553"}, kSmtpMailFromRefused},
      {"real", {"RCPT=550"}, kSmtpRcptToRefused},
      {"data250", {}, kSmtpDataRefused},
      {"real", {"END=554"}, kSmtpDataRefused},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode + (c.refusals.empty() ? std::string() : " " + c.refusals[0]));
    SmtpPeer peer;
    ASSERT_TRUE(peer.Start(c.mode, c.refusals)) << peer.error();
    MemorySettingsStore settings;
    settings.SetString(kFreedbSettingsGroup, "smtp_server", "127.0.0.1");
    settings.SetInt(kFreedbSettingsGroup, "smtp_server_port", peer.port());
    settings.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");
    std::string transcript;
    EXPECT_EQ(SubmitEntryByMail(ThreeTracks(), settings, &transcript), c.code) << transcript;
    EXPECT_FALSE(std::filesystem::exists(peer.folder() / "mail-1.eml"));
  }
}

TEST_F(SubmitMailTest, SilentAndTricklingServersEndInTime) {
  const struct {
    const char* mode;
    int idle_seconds;
    int deadline_seconds;
  } cases[] = {
      {"silent", 1, 60},  // ends by the receive time-out
      {"trickle", 1, 2},  // data keeps coming: ends by the deadline
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    SmtpPeer peer;
    ASSERT_TRUE(peer.Start(c.mode)) << peer.error();
    MemorySettingsStore settings;
    settings.SetString(kFreedbSettingsGroup, "smtp_server", "127.0.0.1");
    settings.SetInt(kFreedbSettingsGroup, "smtp_server_port", peer.port());
    settings.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");
    settings.SetInt(kFreedbSettingsGroup, "smtp_timeout", c.idle_seconds);
    settings.SetInt(kFreedbSettingsGroup, "request_deadline", c.deadline_seconds);
    std::string transcript;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SubmitEntryByMail(ThreeTracks(), settings, &transcript), kSmtpConnectRefused);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(c.deadline_seconds == 2 ? 4 : 3));
    EXPECT_NE(transcript.find(FormatErrorMessage(10060)), std::string::npos) << transcript;
  }
}

TEST(SubmitRequestTest, StoresEachResultAndStopsWhenAbandoned) {
  MemorySettingsStore settings;
  settings.SetString(kFreedbSettingsGroup, "email_address", "me@example.org");
  settings.SetString(kFreedbSettingsGroup, "submit_url", "mailto:x");
  std::vector<SubmissionRecord> entries(2);
  entries[0].entry = ThreeTracks();
  entries[1].entry = ThreeTracks();
  entries[1].entry.category = "Pop";
  DiscLookupRequest request;
  request.submissions = &entries;
  EXPECT_EQ(SubmitByHttp(request, settings), kOk);
  EXPECT_EQ(entries[0].result, kNotHttpAddress);
  EXPECT_EQ(entries[1].result, kInvalidCategory);
  request.submissions = nullptr;
  EXPECT_EQ(SubmitByMail(request, settings), kAborted);
}

}  // namespace
}  // namespace dischive::test
