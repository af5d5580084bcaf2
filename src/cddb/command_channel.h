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

class CommandChannel {
 public:
  /// Longest line piece taken by one receive when skipping or reading lines.
  static constexpr size_t kLineChunk = 1023;

  CommandChannel() = default;
  CommandChannel(const CommandChannel&) = delete;
  CommandChannel& operator=(const CommandChannel&) = delete;

  /// Notes "Connecting to <server>:<port>" and connects. Throws ProtocolError.
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
  /// "<| ". Returns the code and the text of all lines. Throws ProtocolError.
  struct Reply {
    int code = 0;
    std::string text;
  };
  Reply ReadReply(const std::function<std::optional<int>(std::string_view line)>& final_code);

  /// Appends a note (unprefixed) or received text to the transcript.
  void Note(std::string_view text);
  void LogReceived(std::string_view prefixed, std::string_view rest);

  void SetReceiveTimeout(std::chrono::milliseconds timeout) { socket_.SetReceiveTimeout(timeout); }
  void Close();
  bool is_open() const { return socket_.is_open(); }
  const std::string& transcript() const { return transcript_; }
  std::string& transcript() { return transcript_; }

 private:
  // One receive of at most `length` bytes into `buffer`; never returns 0.
  size_t ReceiveSome(char* buffer, size_t length);

  platform::TcpSocket socket_;
  std::string transcript_;
  std::string pending_;  // bytes ReadReply received beyond its reply
};

}  // namespace dischive::detail
