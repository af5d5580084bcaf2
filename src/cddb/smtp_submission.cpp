// Submission by mail: one SMTP dialogue (RFC 5321) on the shared command
// channel. Each step names the code it fails with; a refused reply, a broken
// connection, a short or failed send and a time-out all fail the step in
// progress. The whole dialogue is bounded by the request deadline besides
// each receive's idle time-out.
#include <fmt/printf.h>

#include <ctime>

#include "cddb/command_channel.h"
#include "cddb/submission_internal.h"
#include "dischive/http.h"
#include "dischive/random_id.h"

namespace dischive {

std::optional<int> detail::SmtpFinalLine(std::string_view line) {
  if (line.size() >= 4 && line[3] == '-') return std::nullopt;
  if (line.size() < 3) return 0;
  int code = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (line[i] < '0' || line[i] > '9') return 0;
    code = code * 10 + (line[i] - '0');
  }
  return code;
}

namespace {

// RFC 5321 allows 512 bytes a reply line; a generous bound on a whole reply.
constexpr size_t kMaxReplyLine = 2048;
constexpr size_t kMaxReply = 64 * 1024;

class SmtpDialogue {
 public:
  explicit SmtpDialogue(detail::CommandChannel& channel) : channel_(channel) {}

  // Sends `line` (when not empty) and reads the reply; its code divided by
  // 100 must be `wanted_class`, else the step fails with `step_code`.
  void Step(std::string_view line, int wanted_class, HResult step_code) {
    try {
      if (!line.empty()) channel_.Send(line);
      const auto reply =
          channel_.ReadReply(detail::SmtpFinalLine, {kMaxReplyLine, kMaxReply, step_code});
      if (reply.code / 100 == wanted_class) return;
    } catch (const detail::ProtocolError& e) {
      if (e.code != step_code) {
        channel_.Note(FormatErrorMessage(e.code) + "\n");
      }
    }
    throw detail::ProtocolError{step_code};
  }

  void Quit() {
    try {
      channel_.Send("QUIT\r\n");
      channel_.ReadReply(detail::SmtpFinalLine, {kMaxReplyLine, kMaxReply, kOk});
    } catch (const detail::ProtocolError&) {
      // The message was taken; how the server says goodbye does not matter.
    }
  }

 private:
  detail::CommandChannel& channel_;
};

// "Mon, 23 Nov 2026 14:05:00 +0000": the date line every mail must carry
// (RFC 5322 section 3.6), in UTC.
std::string MailDate() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[64];
  const size_t n = std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S +0000", &utc);
  return std::string(text, n);
}

// The header lines, an empty line and the encoded entry.
std::string BuildMessage(const std::string& from, const std::string& to, const std::string& subject,
                         std::string body, const std::string& helo) {
  // The entry is ISO-8859-1; one that holds only ASCII is labelled as such.
  bool ascii = true;
  for (const char c : body)
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  EncodeQuotedPrintable(body);
  std::string message = fmt::sprintf(
      "From: \"DiscHive user\" <%s>\r\n"
      "To: \"freedb submissions\" <%s>\r\n"
      "Subject: %s\r\n"
      "MIME-Version: 1.0\r\n"
      "Content-Type: text/plain; charset=%s\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n"
      "X-Cddbd-Note: submitted by DiscHive - send mail to %s\r\n"
      "Date: %s\r\n"
      "Message-ID: <%s@%s>\r\n"
      "\r\n",
      from, to, subject, ascii ? "us-ascii" : "iso-8859-1", kSubmissionContact, MailDate(),
      NewRandomIdentifier(), helo);
  message += body;
  if (!message.ends_with("\r\n")) message += "\r\n";
  return detail::StuffDots(message);
}

}  // namespace

HResult SubmitEntryByMail(const DiscSubmission& submission, const SettingsStore& settings,
                          std::string* transcript) {
  if (const HResult r = ValidateSubmission(submission); r != kOk) return r;
  const std::string from = settings.GetString(kFreedbSettingsGroup, "email_address", "");
  const std::string to =
      settings.GetString(kFreedbSettingsGroup, "smtp_submit_address", DefaultSubmitAddress());
  const std::string server =
      settings.GetString(kFreedbSettingsGroup, "smtp_server", kDefaultSmtpServer);
  const int32_t port = settings.GetInt(kFreedbSettingsGroup, "smtp_server_port", kDefaultSmtpPort);
  // The addresses stand inside commands and headers: a line end or bracket
  // in one would end the command early or start another.
  if (!detail::IsPlainAddress(from) || !detail::IsPlainAddress(to) || server.empty() || port <= 0 ||
      port > 65535) {
    return kInvalidArgument;
  }

  std::string subject;
  const std::string entry = detail::WireEntry(submission, &subject);
  const std::string helo = GetHeloName();

  // Each receive waits this long for data ("smtp_timeout", 30 s as the
  // platform's default receive time-out).
  const int32_t idle_seconds = settings.GetInt(kFreedbSettingsGroup, "smtp_timeout", 30);
  detail::CommandChannel channel;
  channel.SetReceiveTimeout(std::chrono::seconds(idle_seconds > 0 ? idle_seconds : 30));
  channel.SetDeadline(std::chrono::steady_clock::now() + detail::RequestDeadline(settings));
  SmtpDialogue smtp(channel);
  HResult result = kOk;
  try {
    try {
      channel.Connect(server, static_cast<uint16_t>(port));
    } catch (const detail::ProtocolError& e) {
      channel.Note(FormatErrorMessage(e.code) + "\n");
      throw detail::ProtocolError{kSmtpConnectRefused};
    }
    smtp.Step({}, 2, kSmtpConnectRefused);
    smtp.Step(fmt::sprintf("HELO %s\r\n", helo), 2, kSmtpHeloRefused);
    smtp.Step(fmt::sprintf("MAIL FROM:<%s>\r\n", from), 2, kSmtpMailFromRefused);
    smtp.Step(fmt::sprintf("RCPT TO:<%s>\r\n", to), 2, kSmtpRcptToRefused);
    smtp.Step("DATA\r\n", 3, kSmtpDataRefused);
    smtp.Step(BuildMessage(from, to, subject, entry, helo) + ".\r\n", 2, kSmtpDataRefused);
    smtp.Quit();
  } catch (const detail::ProtocolError& e) {
    result = e.code;
  }
  channel.Close();
  if (transcript != nullptr) *transcript += channel.transcript();
  return result;
}

}  // namespace dischive
