#include <fmt/format.h>
#include <gtest/gtest.h>

#include "cddb/command_channel.h"
#include "support/fake_freedb.h"

namespace dischive::test {
namespace {

// SMTP's rule: a reply ends with the line whose fourth character is a blank.
std::optional<int> SmtpFinal(std::string_view line) {
  if (line.size() < 4 || line[3] != ' ') return std::nullopt;
  return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

TEST(CommandChannelTest, LineRepliesForMultiLineProtocols) {
  FakeCddbpServer server(std::make_shared<FakeFreedbDatabase>());
  server.SetBanner("220-mail.example.org ESMTP\r\n220 ready\r\n");
  server.SetOverride([](const std::string& line) -> std::optional<FakeCddbpServer::Action> {
    if (line == "EHLO me") return FakeCddbpServer::Action{"250-first\r\n250 last\r\n354 go\r\n"};
    return FakeCddbpServer::Action{"221 bye\r\n", true};
  });
  detail::CommandChannel channel;
  channel.Connect("127.0.0.1", static_cast<uint16_t>(server.port()));
  detail::CommandChannel::Reply reply = channel.ReadReply(SmtpFinal);
  EXPECT_EQ(reply.code, 220);
  EXPECT_EQ(reply.text, "220-mail.example.org ESMTP\r\n220 ready\r\n");
  channel.Send("EHLO me\r\n");
  reply = channel.ReadReply(SmtpFinal);
  EXPECT_EQ(reply.code, 250);
  // What arrived with it waits for the next reply.
  reply = channel.ReadReply(SmtpFinal);
  EXPECT_EQ(reply.code, 354);
  channel.Send("QUIT\r\n");
  EXPECT_EQ(channel.ReadReply(SmtpFinal).code, 221);
  try {
    channel.ReadReply(SmtpFinal);
    ADD_FAILURE() << "read past the end";
  } catch (const detail::ProtocolError& e) {
    EXPECT_EQ(e.code, detail::kConnectionClosed);
  }
  EXPECT_EQ(channel.transcript(),
            fmt::format("Connecting to 127.0.0.1:{}\r\n", server.port()) +
                "<| 220-mail.example.org ESMTP\r\n<| 220 ready\r\n>| EHLO me\r\n"
                "<| 250-first\r\n<| 250 last\r\n<| 354 go\r\n>| QUIT\r\n<| 221 bye\r\n");
}

}  // namespace
}  // namespace dischive::test
