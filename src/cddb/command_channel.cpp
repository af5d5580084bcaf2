#include "cddb/command_channel.h"

#include <fmt/printf.h>

#include <algorithm>

#include "dischive/http.h"

namespace dischive::detail {

void CommandChannel::Note(std::string_view text) {
  AppendTranscriptLines(transcript_, text, TranscriptDirection::kNote);
}

void CommandChannel::LogReceived(std::string_view prefixed, std::string_view rest) {
  if (!prefixed.empty()) {
    AppendTranscriptLines(transcript_, prefixed, TranscriptDirection::kReceived);
  }
  if (!rest.empty()) AppendTranscriptLines(transcript_, rest, TranscriptDirection::kNote);
}

std::chrono::milliseconds CommandChannel::TimeLeft(std::chrono::milliseconds limit) const {
  if (!deadline_) return limit;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - std::chrono::steady_clock::now());
  if (left.count() <= 0) throw ProtocolError{kDialogueTimedOut};
  return std::min(left, limit);
}

void CommandChannel::Connect(const std::string& server, uint16_t port) {
  Close();
  Note(fmt::sprintf("Connecting to %s:%d\n", server, port));
  const auto timeout = TimeLeft(platform::TcpSocket::kDefaultConnectTimeout);
  if (const HResult r = socket_.Connect(server, port, timeout); r != kOk) throw ProtocolError{r};
}

void CommandChannel::Send(std::string_view line) {
  AppendTranscriptLines(transcript_, line, TranscriptDirection::kSent);
  if (const HResult r = socket_.SendAll(line); r != kOk) throw ProtocolError{r};
}

size_t CommandChannel::ReceiveSome(char* buffer, size_t length) {
  // Each receive waits the idle time-out, or less when the deadline is nearer.
  socket_.SetReceiveTimeout(TimeLeft(receive_timeout_));
  size_t received = 0;
  if (const HResult r = socket_.Receive(buffer, length, &received); r != kOk) {
    throw ProtocolError{r};
  }
  // A closed connection ends every receive loop: nothing more will come.
  if (received == 0) throw ProtocolError{kConnectionClosed};
  return received;
}

std::string CommandChannel::ReceiveExact(size_t length) {
  std::string out(length, '\0');
  size_t have = 0;
  // Bytes a line reply read ahead come first.
  const size_t from_pending = std::min(pending_.size(), length);
  out.replace(0, from_pending, pending_, 0, from_pending);
  pending_.erase(0, from_pending);
  have = from_pending;
  while (have < length)
    have += ReceiveSome(out.data() + have, length - have);
  return out;
}

void CommandChannel::SkipLine() {
  char chunk[kLineChunk];
  for (;;) {
    size_t n;
    if (!pending_.empty()) {
      n = std::min(pending_.size(), kLineChunk);
      pending_.copy(chunk, n);
      pending_.erase(0, n);
    } else {
      n = ReceiveSome(chunk, kLineChunk);
    }
    LogReceived({}, std::string_view(chunk, n));
    if (chunk[n - 1] == '\n') return;
  }
}

std::string CommandChannel::ReadBody(BodyEnd end, size_t capacity, bool* cut) {
  std::string body(capacity, '\0');
  size_t have = std::min(pending_.size(), capacity);
  pending_.copy(body.data(), have);
  pending_.erase(0, have);
  auto ended = [&] {
    const std::string_view got(body.data(), have);
    if (end == BodyEnd::kOneLine) return have > 0 && got.back() == '\n';
    return got.ends_with("\r\n.\r\n") || got.ends_with("\n.\n");
  };
  while (!ended() && have < capacity)
    have += ReceiveSome(body.data() + have, capacity - have);
  *cut = !ended();
  body.resize(have);
  LogReceived({}, body);
  return body;
}

CommandChannel::Reply CommandChannel::ReadReply(const FinalLine& final_code,
                                                const ReplyLimits& limits) {
  Reply reply;
  for (;;) {
    size_t lf;
    while ((lf = pending_.find('\n')) == std::string::npos) {
      // A line longer than the protocol allows is an unusable answer.
      if (pending_.size() > limits.max_line) throw ProtocolError{limits.too_long};
      char chunk[kLineChunk];
      pending_.append(chunk, ReceiveSome(chunk, kLineChunk));
    }
    if (lf >= limits.max_line) throw ProtocolError{limits.too_long};
    const std::string line = pending_.substr(0, lf + 1);
    pending_.erase(0, lf + 1);
    // A server that sends continuation lines without end never finishes a reply.
    if (line.size() > limits.max_total - std::min(limits.max_total, reply.text.size())) {
      throw ProtocolError{limits.too_long};
    }
    const size_t code_length = std::min<size_t>(3, line.size());
    LogReceived(std::string_view(line).substr(0, code_length),
                std::string_view(line).substr(code_length));
    reply.text += line;
    if (const auto code = final_code(line)) {
      reply.code = *code;
      return reply;
    }
  }
}

void CommandChannel::Close() {
  socket_.Close();
  pending_.clear();
}

}  // namespace dischive::detail
