#include <gtest/gtest.h>

#include "dischive/http.h"
#include "dischive/strings.h"

namespace dischive {
namespace {

TEST(TranscriptTest, LinesTakeTheFirstSeparatorsForm) {
  struct Case {
    std::string_view text;
    TranscriptDirection direction;
    std::string_view expected;
  };
  using D = TranscriptDirection;
  const Case cases[] = {
      {"a\r\nb\r\n", D::kSent, ">| a\r\n>| b\r\n"},
      {"a\rb", D::kReceived, "<| a\r\n<| b"},
      {"a\nb\n", D::kNote, "a\r\nb\r\n"},
      {"a\n\rb\n\r", D::kSent, ">| a\r\n>| b\r\n"},
      // Only the first separator's form splits; other line ends stay inside lines.
      {"a\nb\r\nc", D::kSent, ">| a\r\n>| b\r\r\n>| c"},
      {"a\r\nb\nc", D::kSent, ">| a\r\n>| b\nc"},
      {"one line", D::kReceived, "<| one line"},
      {"", D::kSent, ""},
      {"\r\n\r\n", D::kReceived, "<| \r\n<| \r\n"},
  };
  for (const Case& c : cases) {
    std::string transcript = "before\r\n";
    AppendTranscriptLines(transcript, c.text, c.direction);
    EXPECT_EQ(transcript, "before\r\n" + std::string(c.expected)) << c.text;
  }
}

TEST(TranscriptTest, ExchangeWithMaskedPasswordAndBodyKinds) {
  HttpRequest r;
  r.sent_headers = "POST /xml HTTP/1.1\r\nHost: h\r\n\r\n";
  r.body =
      "<Param><Name>user</Name><Value>me</Value></Param>"
      "<Param><Name>password</Name><Value>hunter2</Value></Param>"
      "<Param><Name>password</Name><Value>again</Value></Param>";
  r.response_headers = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n";
  r.response_body = "<ok/>\n<done/>";
  std::string t;
  FormatHttpTranscript(t, r);
  EXPECT_EQ(t,
            ">| POST /xml HTTP/1.1\r\n>| Host: h\r\n>| \r\n"
            ">| <Param><Name>user</Name><Value>me</Value></Param>"
            "<Param><Name>password</Name><Value>********</Value></Param>"
            "<Param><Name>password</Name><Value>again</Value></Param>\r\n"
            "<| HTTP/1.1 200 OK\r\n<| Content-Type: text/xml\r\n<| \r\n"
            "<| <ok/>\r\n<| <done/>");

  // Unclosed parameter: logged unchanged. Binary body: the placeholder text.
  r.body = "<Param><Name>password</Name><Value>open";
  r.response_headers = "HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\n\r\n";
  r.response_body = std::string("\xFF\xD8\0\x01", 4);
  t.clear();
  FormatHttpTranscript(t, r);
  EXPECT_NE(t.find(">| <Param><Name>password</Name><Value>open\r\n"), std::string::npos);
  EXPECT_TRUE(t.ends_with("<| " + LoadHostString(strings::kBinaryBody))) << t;

  // JSON counts as text; the header name is matched without regard to case.
  r.response_headers = "HTTP/1.1 200 OK\r\nCONTENT-TYPE: Application/JSON\r\n\r\n";
  r.response_body = "{\"a\":1}";
  t.clear();
  FormatHttpTranscript(t, r);
  EXPECT_TRUE(t.ends_with("<| {\"a\":1}")) << t;
}

}  // namespace
}  // namespace dischive
