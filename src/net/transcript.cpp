// The connection transcript: what was sent and received, line by line, for
// the host's connection log.
#include <string>
#include <string_view>

#include "dischive/http.h"
#include "dischive/strings.h"
#include "dischive/text.h"

namespace dischive {
namespace {

std::string_view Marker(TranscriptDirection direction) {
  switch (direction) {
    case TranscriptDirection::kSent:
      return ">| ";
    case TranscriptDirection::kReceived:
      return "<| ";
    default:
      return {};
  }
}

// The separator of a text is the form of its first line end: "\r\n", "\r",
// "\n" or "\n\r". Empty when the text has none.
std::string_view LineSeparator(std::string_view text) {
  const size_t pos = text.find_first_of("\r\n");
  if (pos == std::string_view::npos) return {};
  const bool pair = pos + 1 < text.size() && (text[pos + 1] == '\r' || text[pos + 1] == '\n') &&
                    text[pos + 1] != text[pos];
  return text.substr(pos, pair ? 2 : 1);
}

// The value of the first "password" parameter of a service request replaced
// by asterisks, when its closing tags follow.
std::string MaskPassword(std::string_view body) {
  static constexpr std::string_view kOpen = "<Param><Name>password</Name><Value>";
  static constexpr std::string_view kClose = "</Value></Param>";
  std::string out(body);
  const size_t open = body.find(kOpen);
  if (open == std::string_view::npos) return out;
  const size_t value = open + kOpen.size();
  const size_t close = body.find(kClose, value);
  if (close == std::string_view::npos) return out;
  out.replace(value, close - value, "********");
  return out;
}

bool IsTextBody(std::string_view headers) {
  const std::string lower = ToLowerAscii(headers);
  return lower.find("content-type: application/json") != std::string::npos ||
         lower.find("content-type: text/") != std::string::npos;
}

// Text handed over as a C string ends at its first NUL.
std::string_view UpToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace

void AppendTranscriptLines(std::string& transcript, std::string_view text,
                           TranscriptDirection direction) {
  const std::string_view marker = Marker(direction);
  const std::string_view separator = LineSeparator(text);

  // Size the result once: every line gets a marker, and every separator
  // becomes "\r\n".
  size_t lines = 1;
  if (!separator.empty()) {
    for (size_t pos = text.find(separator); pos != std::string_view::npos;
         pos = text.find(separator, pos + separator.size())) {
      ++lines;
    }
  }
  transcript.reserve(transcript.size() + text.size() + lines * (marker.size() + 2));

  size_t pos = 0;
  while (!separator.empty()) {
    const size_t end = text.find(separator, pos);
    if (end == std::string_view::npos) break;
    transcript.append(marker);
    transcript.append(text.substr(pos, end - pos));
    transcript.append("\r\n");
    pos = end + separator.size();
  }
  if (pos < text.size()) {
    transcript.append(marker);
    transcript.append(text.substr(pos));
  }
}

void FormatHttpTranscript(std::string& transcript, const HttpRequest& request) {
  AppendTranscriptLines(transcript, UpToNul(request.sent_headers), TranscriptDirection::kSent);
  if (!request.body.empty()) {
    AppendTranscriptLines(transcript, MaskPassword(request.body) + "\r\n",
                          TranscriptDirection::kSent);
  }
  AppendTranscriptLines(transcript, UpToNul(request.response_headers),
                        TranscriptDirection::kReceived);
  if (request.response_body.empty()) return;
  if (IsTextBody(request.response_headers)) {
    AppendTranscriptLines(transcript, UpToNul(request.response_body),
                          TranscriptDirection::kReceived);
  } else {
    AppendTranscriptLines(transcript, LoadHostString(strings::kBinaryBody),
                          TranscriptDirection::kReceived);
  }
}

}  // namespace dischive
