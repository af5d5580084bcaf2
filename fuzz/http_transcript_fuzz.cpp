// Feeds arbitrary bytes as a server's response headers and body to the HTTP
// transcript formatting (text detection, line splitting, NUL handling), and
// as the request body whose password is masked.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/http.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  // The first line is the header block, the rest the body.
  const size_t split = bytes.find('\n');
  dischive::HttpRequest request;
  request.verb = "POST";
  request.sent_headers = "POST /submit HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  request.body = std::string(bytes.substr(0, 256));
  request.response_headers = std::string(bytes.substr(0, split));
  if (split != std::string_view::npos) request.response_body = std::string(bytes.substr(split + 1));
  std::string transcript;
  dischive::FormatHttpTranscript(transcript, request);
  for (auto direction :
       {dischive::TranscriptDirection::kNote, dischive::TranscriptDirection::kReceived,
        dischive::TranscriptDirection::kSent})
    dischive::AppendTranscriptLines(transcript, bytes, direction);
  return 0;
}
