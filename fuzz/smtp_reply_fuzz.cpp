// Feeds arbitrary bytes as a mail server's replies to the line-reply reader
// of the command channel over a real loopback connection, with the mail
// dialogue's reply rule ("250-" continues, "250 " ends).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cddb/command_channel.h"
#include "loopback_peer.h"

namespace {

std::optional<int> FinalLine(std::string_view line) {
  if (line.size() >= 4 && line[3] == '-') return std::nullopt;
  if (line.size() < 3) return 0;
  int code = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (line[i] < '0' || line[i] > '9') return 0;
    code = code * 10 + (line[i] - '0');
  }
  return code;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) return 0;
  LoopbackPeer peer(std::string(reinterpret_cast<const char*>(data), size));
  if (peer.port() == 0) return 0;
  dischive::detail::CommandChannel channel;
  channel.SetReceiveTimeout(std::chrono::milliseconds(2000));
  try {
    channel.Connect("127.0.0.1", peer.port());
    // Greeting, EHLO, MAIL, RCPT, DATA, the message, QUIT: at most seven.
    for (int step = 0; step < 7; ++step)
      channel.ReadReply(FinalLine, {1000, 64 * 1024, 0x80004005});
  } catch (const dischive::detail::ProtocolError&) {
  }
  channel.Close();
  return 0;
}
