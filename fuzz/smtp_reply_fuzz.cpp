// Feeds arbitrary bytes as a mail server's replies to the line-reply reader
// of the command channel over a real loopback connection, with the mail
// dialogue's reply rule ("250-" continues, "250 " ends).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cddb/command_channel.h"
#include "cddb/submission_internal.h"
#include "loopback_peer.h"

namespace {}  // namespace

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
      channel.ReadReply(dischive::detail::SmtpFinalLine, {1000, 64 * 1024, 0x80004005});
  } catch (const dischive::detail::ProtocolError&) {
  }
  channel.Close();
  return 0;
}
