// The envelope protocol: request envelopes and multipart forms byte for byte,
// response envelopes (errors, params, album states), hostile answers, and real
// exchanges with the fake collection service over 127.0.0.1.
#include "dischive/service.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <fstream>

#include "dischive/cover.h"
#include "dischive/strings.h"
#include "support/fake_collection_service.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

const std::vector<ServiceParam> kAccount = {{"login", "listener"}, {"password", "0123ABCD"}};

size_t Count(std::string_view text, std::string_view what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

TEST(ServiceEnvelope, LaysOutEveryBlockByteForByte) {
  test::TempDir dir;
  const auto payload = dir / "doc.xml";
  std::ofstream(payload, std::ios::binary)
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n \t<Collection Version=\"1.0\">"
         "<Albums/></Collection>\n";
  const std::string jpeg = "\xFF\xD8 not really a jpeg \xFF\xD9";
  struct Case {
    std::string command;
    std::vector<ServiceParam> params;
    std::vector<CoverAttachment> covers;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"list",
       {},
       {},
       "<Envelope>\n <Request>\n  <Command>list</Command>\n </Request>\n</Envelope>\n"},
      {"hello",
       {{"login", "a&b"}, {"n", ""}},
       {},
       "<Envelope>\n <Request>\n  <Command>hello</Command>\n  <Params>\n"
       "   <Param><Name>login</Name><Value>a&b</Value></Param>\n"
       "   <Param><Name>n</Name><Value></Value></Param>\n  </Params>\n </Request>\n</Envelope>\n"},
      {"put",
       {},
       {},
       "<Envelope>\n <Request>\n  <Command>put</Command>\n  <Payload>\n"
       "<Collection Version=\"1.0\"><Albums/></Collection>\n</Payload>\n "
       "</Request>\n</Envelope>\n"},
      {"cover",
       {},
       {{jpeg, "0123456789ABCDEF"}, {jpeg, "FEDCBA9876543210"}},
       "<Envelope>\n <Request>\n  <Command>cover</Command>\n  <Covers>\n"
       "   <Cover Attachment=\"file1\" Hash=\"" +
           CoverHash(jpeg) +
           "\" AlbumID=\"0123456789ABCDEF\" />\n"
           "   <Cover Attachment=\"file2\" Hash=\"" +
           CoverHash(jpeg) +
           "\" AlbumID=\"FEDCBA9876543210\" />\n</Covers>\n </Request>\n</Envelope>\n"},
      // Attachments of another command are not described.
      {"list",
       {},
       {{jpeg, "0123456789ABCDEF"}},
       "<Envelope>\n <Request>\n  <Command>list</Command>\n </Request>\n</Envelope>\n"},
  };
  for (const Case& c : cases) {
    std::string envelope;
    ASSERT_EQ(BuildServiceEnvelope(c.command, c.params, payload, c.covers, envelope), kOk);
    EXPECT_EQ(envelope, c.expected) << c.command;
  }
  std::string envelope = "unchanged";
  EXPECT_NE(BuildServiceEnvelope("put", {}, dir / "missing.xml", {}, envelope), kOk);
  EXPECT_EQ(envelope, "unchanged");
}

TEST(ServiceEnvelope, MultipartFormHasExactlyTheDocumentedLayout) {
  const std::string envelope = "<Envelope>AAAA</Envelope>\n";
  const std::string jpeg("\xFF\xD8\n--\0x\xFF\xD9", 8);
  std::vector<std::string> candidates = {"AAAA", "", "B0B0B0B0B0B0B0B0"};
  size_t drawn = 0;
  const MultipartForm form = BuildMultipartForm(envelope, "cover", {{jpeg, "0123456789ABCDEF"}},
                                                [&] { return candidates.at(drawn++); });
  EXPECT_EQ(drawn, 3u) << "a boundary found in the envelope (or empty) is drawn again";
  EXPECT_EQ(form.boundary, "B0B0B0B0B0B0B0B0");
  const std::string head =
      "--B0B0B0B0B0B0B0B0\ncontent-disposition: form-data; name=\"req\"; filename=\"req.xml\"\n"
      "Content-Type: text/xml; charset=UTF-8\n\n<Envelope>AAAA</Envelope>\n\n--B0B0B0B0B0B0B0B0"
      "\ncontent-disposition: form-data; name=\"file1\"; filename=\"file1.jpg\"\n"
      "Content-Type: image/jpeg\nContent-Transfer-Encoding: binary\n\n";
  EXPECT_EQ(form.body, head + jpeg + "\n--B0B0B0B0B0B0B0B0--");
  EXPECT_EQ(form.log, head + LoadHostString(strings::kBinaryBody) + "\n--B0B0B0B0B0B0B0B0--");
  EXPECT_EQ(Count(form.body, "--B0B0B0B0B0B0B0B0"), 3u);

  // Other commands carry no image parts; a random boundary is 16 hex digits.
  const MultipartForm plain = BuildMultipartForm(envelope, "list", {{jpeg, "0123456789ABCDEF"}});
  EXPECT_EQ(plain.boundary.size(), 16u);
  EXPECT_EQ(Count(plain.body, plain.boundary), 2u);
  EXPECT_EQ(plain.body.substr(plain.body.size() - 2), "--");
}

TEST(ServiceResponse, ReadsErrorsParamsAndAlbumStates) {
  const std::string hash = "00112233445566778899AABBCCDDEEFF";
  struct Case {
    const char* name;
    std::string command;
    std::string body;
    HResult result;
    std::optional<std::string> message;
    std::vector<ServiceParam> params;
    std::vector<AlbumState> albums;
  };
  const std::string list_head = "<Envelope><Response><Payload><Collection><Albums><All>";
  const std::string list_tail = "</All></Albums></Collection></Payload></Response></Envelope>";
  const std::vector<Case> cases = {
      {"description",
       "put",
       "<Envelope><Error><Code>5</Code><Description>Locked</Description></Error>"
       "<Response><Params><Param><Name>a</Name><Value>b</Value></Param></Params></Response>"
       "</Envelope>",
       kFreedbServiceError,
       "Locked",
       {},
       {}},
      {"code only",
       "put",
       "<Envelope><Error><Code> 42</Code></Error></Envelope>",
       kFreedbServiceError,
       "The collection service reported error 42.",
       {},
       {}},
      {"code zero",
       "put",
       "<Envelope><Error><Code>0</Code></Error></Envelope>",
       kFreedbServiceError,
       std::nullopt,
       {},
       {}},
      {"empty error",
       "list",
       "<Envelope><Error/></Envelope>",
       kFreedbServiceError,
       std::nullopt,
       {},
       {}},
      {"params",
       "hello",
       "<Envelope><Response><Params><Param><Name>a</Name><Value>1</Value></Param>"
       "<Param><Name></Name><Value>2</Value></Param><Param><Name>c</Name><Value/></Param>"
       "<Param><Name>a</Name><Value>3</Value></Param></Params></Response></Envelope>",
       kOk,
       std::nullopt,
       {{"a", "1"}, {"a", "3"}},
       {}},
      {"album states",
       "list",
       list_head +
           "<Album ID=\"0123456789ABCDEF\" Modified=\"5f5e0f00\" Played=\"00000010\" "
           "Rated=\"0000001\" CoverHash=\"" +
           hash +
           "\"/>"
           "<Album ID=\"0123456789ABCDE\" Modified=\"00000001\"/>"
           "<Album ID=\"0123456789ABCDEF0\"/><Album ID=\"0123456789ABCDEG\"/>"
           "<Album ID=\"abcdefabcdefabcd\" Modified=\"1234567G\" CoverHash=\"" +
           hash.substr(1) + "\"/>" + list_tail,
       kOk,
       std::nullopt,
       {},
       {{"0123456789ABCDEF", 0x5f5e0f00, 0x10, 0, hash}, {"abcdefabcdefabcd", 0, 0, 0, ""}}},
      {"states of another command ignored",
       "put",
       list_head + "<Album ID=\"0123456789ABCDEF\"/>" + list_tail,
       kOk,
       std::nullopt,
       {},
       {}},
      {"not xml", "list", "<Envelope><Response>", kFail, std::nullopt, {}, {}},
  };
  for (const Case& c : cases) {
    ClearServiceErrorMessage();
    std::vector<ServiceParam> params;
    std::vector<AlbumState> albums;
    EXPECT_EQ(ParseServiceResponse(c.body, c.command, &params, &albums), c.result) << c.name;
    EXPECT_EQ(ServiceErrorMessage(), c.message) << c.name;
    EXPECT_EQ(params, c.params) << c.name;
    EXPECT_EQ(albums, c.albums) << c.name;
  }
  std::vector<ServiceParam> found = {{"A", "x"}, {"a", "y"}, {"a", "z"}};
  ASSERT_NE(FindServiceParam(found, "a"), nullptr);
  EXPECT_EQ(*FindServiceParam(found, "a"), "y");
  EXPECT_EQ(FindServiceParam(found, "b"), nullptr);
}

TEST(ServiceHost, SplitsHostAndPortAndRestoresTheDefault) {
  struct Case {
    std::string text;
    bool ok;
    std::string server;
    uint16_t port;
  };
  for (const Case& c : std::vector<Case>{{"example.org", true, "example.org", 80},
                                         {"127.0.0.1:8080", true, "127.0.0.1", 8080},
                                         {"[::1]:81", true, "::1", 81},
                                         {"[::1]", true, "::1", 80},
                                         {"host:", false, "", 0},
                                         {"host:0", false, "", 0},
                                         {"host:65536", false, "", 0},
                                         {"host:8o", false, "", 0},
                                         {":80", false, "", 0},
                                         {"::1", false, "", 0},
                                         {"[::1", false, "", 0}}) {
    std::string server;
    uint16_t port = 0;
    EXPECT_EQ(SplitServiceHost(c.text, server, port), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(std::make_pair(server, port), std::make_pair(c.server, c.port)) << c.text;
    }
  }
  SetServiceHostName("a.example:81");
  EXPECT_EQ(ServiceHostName(), "a.example:81");
  SetServiceHostName("");
  EXPECT_EQ(ServiceHostName(), kDefaultServiceHost);
}

class ServiceExchange : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service.Start());
    connection.host = service.host();
    connection.internet.preconfigured = false;
    connection.log = &log;
  }
  test::FakeCollectionService service;
  ServiceConnection connection;
  std::string log;
};

TEST_F(ServiceExchange, PlainAndMultipartRequestsReachTheServiceIntact) {
  test::TempDir dir;
  const auto payload = dir / "doc.xml";
  std::ofstream(payload) << "<?xml version=\"1.0\"?>\n<Collection><Albums>"
                            "<Album ID=\"0123456789ABCDEF\" Modified=\"00000100\"/>"
                            "</Albums></Collection>";
  std::vector<ServiceParam> result;
  std::vector<std::string> status;
  connection.status = [&](const std::string& s) { status.push_back(s); };
  ASSERT_EQ(SendServiceRequest(connection, "put", kAccount, &result, payload, {}, nullptr), kOk);
  ASSERT_NE(FindServiceParam(result, "Accepted"), nullptr);
  EXPECT_EQ(*FindServiceParam(result, "Accepted"), "1");
  EXPECT_EQ(status, std::vector<std::string>{"Connecting to " + service.host() + "..."});

  const std::string jpeg = "\xFF\xD8\r\n--\x01\xFF\xD9";
  ASSERT_EQ(SendServiceRequest(connection, "cover", kAccount, &result, {},
                               {{jpeg, "0123456789ABCDEF"}}, nullptr, true),
            kOk);
  std::vector<AlbumState> albums;
  ASSERT_EQ(SendServiceRequest(connection, "list", kAccount, nullptr, {}, {}, &albums), kOk);
  ASSERT_EQ(albums.size(), 1u);
  EXPECT_EQ(albums[0].modified, 0x100u);
  EXPECT_EQ(albums[0].cover_hash, CoverHash(jpeg));

  const auto requests = service.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].content_type, "text/xml; charset=UTF-8");
  EXPECT_EQ(requests[1].content_type.rfind("multipart/form-data, boundary=", 0), 0u);
  EXPECT_EQ(requests[1].cover_ids, std::vector<std::string>{"0123456789ABCDEF"});
  // The transcript masks the key and shows no image bytes; no "Expect" header.
  EXPECT_EQ(log.find("0123ABCD"), std::string::npos);
  EXPECT_NE(log.find("<Value>********</Value>"), std::string::npos);
  EXPECT_NE(log.find(LoadHostString(strings::kBinaryBody)), std::string::npos);
  EXPECT_EQ(log.find("\x01"), std::string::npos);
  EXPECT_EQ(log.find("Expect:"), std::string::npos);
}

TEST_F(ServiceExchange, EachFailureFormHasItsResultAndMessage) {
  struct Case {
    test::ServiceFailure failure;
    HResult result;
    std::optional<std::string> message;
  };
  for (const Case& c : std::vector<Case>{
           {test::ServiceFailure::kStatus500, kHttpStatusNotOk, std::nullopt},
           {test::ServiceFailure::kDescription, kFreedbServiceError, "Database locked"},
           {test::ServiceFailure::kCode, kFreedbServiceError,
            "The collection service reported error 42."},
           {test::ServiceFailure::kCodeZero, kFreedbServiceError, std::nullopt},
           {test::ServiceFailure::kMalformed, kFail, std::nullopt},
       }) {
    service.Fail(c.failure, 0, 1);
    std::vector<AlbumState> albums;
    EXPECT_EQ(SendServiceRequest(connection, "list", kAccount, nullptr, {}, {}, &albums), c.result)
        << static_cast<int>(c.failure);
    EXPECT_EQ(ServiceErrorMessage(), c.message) << static_cast<int>(c.failure);
    EXPECT_TRUE(albums.empty());
  }
  // A cut connection is the transport's failure, not a service answer.
  service.Fail(test::ServiceFailure::kCutConnection, 0, 1);
  const HResult cut = SendServiceRequest(connection, "list", kAccount, nullptr, {}, {}, nullptr);
  EXPECT_NE(cut, kOk);
  EXPECT_NE(cut, kFreedbServiceError);
  // A wrong account is the service's error element.
  EXPECT_EQ(SendServiceRequest(connection, "list", {{"login", "x"}}, nullptr, {}, {}, nullptr),
            kFreedbServiceError);
  EXPECT_EQ(ServiceErrorMessage(), "Unknown login or key");
  // Nobody listening: the transport's "cannot connect".
  connection.host = "127.0.0.1:1";
  EXPECT_EQ(SendServiceRequest(connection, "list", kAccount, nullptr, {}, {}, nullptr), 12029u);
}

long PeakResidentKib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(ServiceExchange, EntityAndSizeAttacksAreRefusedQuicklyAndSmall) {
  std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE Envelope [\n <!ENTITY l0 \"ha\">\n";
  for (int i = 1; i <= 12; ++i) {
    laughs += " <!ENTITY l" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k)
      laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "\">\n";
  }
  laughs += "]>\n<Envelope><Error><Description>&l12;</Description></Error></Envelope>";
  const std::string quadratic = "<?xml version=\"1.0\"?><!DOCTYPE E [<!ENTITY a \"" +
                                std::string(100000, 'a') + "\">]><Envelope><Error><Description>" +
                                [] {
                                  std::string refs;
                                  for (int i = 0; i < 20000; ++i)
                                    refs += "&a;";
                                  return refs;
                                }() +
                                "</Description></Error></Envelope>";
  const std::string external =
      "<?xml version=\"1.0\"?><!DOCTYPE E [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>"
      "<Envelope><Error><Description>&x;</Description></Error></Envelope>";
  const std::string large = "<Envelope><Response><Params><Param><Name>a</Name><Value>" +
                            std::string(3 << 20, 'x') +
                            "</Value></Param></Params></Response></Envelope>";
  connection.max_response = size_t{2} << 20;
  const long peak_before = PeakResidentKib();
  for (const std::string* body :
       std::vector<const std::string*>{&laughs, &quadratic, &external, &large}) {
    service.SetListAnswer(*body);
    ClearServiceErrorMessage();
    const auto start = std::chrono::steady_clock::now();
    std::vector<ServiceParam> params;
    EXPECT_NE(SendServiceRequest(connection, "list", kAccount, &params, {}, {}, nullptr), kOk);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(ServiceErrorMessage(), std::nullopt);
    EXPECT_TRUE(params.empty());
  }
  EXPECT_LT(PeakResidentKib() - peak_before, 64 * 1024) << "KiB of extra peak memory";
}

}  // namespace
}  // namespace dischive
