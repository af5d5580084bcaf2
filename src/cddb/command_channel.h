// The command/response engine of the line protocols that run over a plain TCP
// connection (the CDDB socket protocol; mail submission by SMTP): connecting
// with a note, sending command lines, receiving status codes, lines and bodies,
// all logged to a connection transcript (">| " sent, "<| " received codes,
// notes and received text unprefixed, every line end "\r\n").
//
// A protocol supplies only what differs: for line replies, which line is the
// final one of a reply and what its code is (ReadReply); for the CDDB socket
// protocol, its fixed three-byte codes and body terminators.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "dischive/result.h"
#include "platform/socket.h"

namespace dischive::detail {

/// A failure inside a protocol exchange; it never leaves the library: the
/// lookup or submission turns it into a result code.
struct ProtocolError {
  HResult code;
};

/// Received when the peer closed the connection in the middle of an answer.
inline constexpr HResult kConnectionClosed = 10054;  // WSAECONNRESET
/// Received when the dialogue's deadline passed.
inline constexpr HResult kDialogueTimedOut = 10060;  // WSAETIMEDOUT

/// Bounds of one line reply (ReadReply): the longest line, the most bytes of
/// all its lines, and the code a reply that exceeds either fails with (each
/// protocol, or each step of it, names its own).
struct ReplyLimits {
  size_t max_line = 64 * 1023;
  size_t max_total = 256 * 1024;
  HResult too_long = 0x80004005;  // E_FAIL
};

class CommandChannel {
 public:
  /// Longest line piece taken by one receive when skipping or reading lines.
  static constexpr size_t kLineChunk = 1023;

  CommandChannel() = default;
  CommandChannel(const CommandChannel&) = delete;
  CommandChannel& operator=(const CommandChannel&) = delete;

  /// Notes "Connecting to <server>:<port>" and connects (within the deadline,
  /// when one is set). Throws ProtocolError.
  void Connect(const std::string& server, uint16_t port);
  /// Sends one command line (which ends in "\n"). Throws ProtocolError.
  void Send(std::string_view line);
  /// Receives exactly `length` bytes. Throws ProtocolError (kConnectionClosed
  /// when the peer closes first).
  std::string ReceiveExact(size_t length);
  /// Receives chunks of up to kLineChunk bytes until one ends with "\n", each
  /// logged unprefixed. Throws ProtocolError.
  void SkipLine();

  /// How a body ends.
  enum class BodyEnd {
    kOneLine,    ///< at a "\n"
    kMultiLine,  ///< at the "." line ("\r\n.\r\n", also "\n.\n")
  };
  /// Receives a body into one buffer of `capacity` bytes, each receive asking
  /// for the room left, until its end or until the buffer is full (*cut is then
  /// set: the rest of the answer is still on its way). Logged unprefixed.
  /// Throws ProtocolError.
  std::string ReadBody(BodyEnd end, size_t capacity, bool* cut);

  /// Reads the lines of one reply until `final_code` returns the code of its
  /// final line (for replies whose continuation lines differ from the last,
  /// "250-..." then "250 ..."). Lines are logged with the code part prefixed
  /// "<| ". Returns the code and the text of all lines. Throws ProtocolError,
  /// with limits.too_long for a line or reply beyond the limits.
  struct Reply {
    int code = 0;
    std::string text;
  };
  using FinalLine = std::function<std::optional<int>(std::string_view line)>;
  Reply ReadReply(const FinalLine& final_code, const ReplyLimits& limits);
  /// The same with the default limits.
  Reply ReadReply(const FinalLine& final_code) { return ReadReply(final_code, ReplyLimits{}); }

  /// Appends a note (unprefixed) or received text to the transcript.
  void Note(std::string_view text);
  void LogReceived(std::string_view prefixed, std::string_view rest);

  /// The longest wait for data of one receive (the idle time-out).
  void SetReceiveTimeout(std::chrono::milliseconds timeout) { receive_timeout_ = timeout; }
  /// An overall deadline for the dialogue: connecting and every receive end
  /// with kDialogueTimedOut once it has passed, however steadily data trickles in.
  void SetDeadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }
  void ClearDeadline() { deadline_.reset(); }
  void Close();
  bool is_open() const { return socket_.is_open(); }
  const std::string& transcript() const { return transcript_; }
  std::string& transcript() { return transcript_; }

 private:
  // One receive of at most `length` bytes into `buffer`; never returns 0.
  size_t ReceiveSome(char* buffer, size_t length);

  // The time left before the deadline, at most `limit`; throws
  // kDialogueTimedOut when none is left.
  std::chrono::milliseconds TimeLeft(std::chrono::milliseconds limit) const;

  platform::TcpSocket socket_;
  std::chrono::milliseconds receive_timeout_ = platform::TcpSocket::kDefaultReceiveTimeout;
  std::optional<std::chrono::steady_clock::time_point> deadline_;
  std::string transcript_;
  std::string pending_;  // bytes ReadReply received beyond its reply
};

}  // namespace dischive::detail
