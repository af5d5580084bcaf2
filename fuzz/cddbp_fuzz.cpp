// Feeds arbitrary bytes as a CDDB socket server's answers to a whole dialogue
// (banner, hello, proto, query, read, quit) over a real loopback connection.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cddb/cddbp.h"
#include "loopback_peer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) return 0;
  LoopbackPeer peer(std::string(reinterpret_cast<const char*>(data), size));
  if (peer.port() == 0) return 0;
  dischive::detail::CddbpConnection connection;
  connection.channel().SetReceiveTimeout(std::chrono::milliseconds(2000));
  try {
    connection.Connect("127.0.0.1", peer.port());
    connection.Hello("user", "host");
    connection.SetProto(6);
    connection.set_text_level(6);
    dischive::DiscToc toc;
    toc.disc_id = 0x860b160b;
    toc.track_count = 1;
    toc.frame_offsets[0] = 150;
    toc.disc_length_seconds = 2837;
    std::vector<dischive::FreedbMatch> matches;
    connection.Query(toc, matches, dischive::kMaxFreedbMatches);
    dischive::XmcdKeywordMap map;
    if (!connection.out_of_step()) connection.Read("rock", toc.disc_id, map);
    connection.Quit();
  } catch (const dischive::detail::ProtocolError&) {
  }
  connection.Close();
  return 0;
}
