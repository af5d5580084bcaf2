// Feeds arbitrary bytes to the product search answer reader (and so to the
// XML response reader under it), and arbitrary text to the URL signer.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/amazon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  dischive::AmazonAnswer answer;
  dischive::ParseAmazonAnswer(text, answer, size_t{1} << 20);
  for (const dischive::AmazonAlbum& album : answer.albums)
    (void)album.LargestImage();
  std::string error;
  dischive::SignAmazonUrl(text, "key", std::chrono::system_clock::time_point(), error);
  return 0;
}
