// Fetching signed product search URLs through the transport.
#include <charconv>
#include <string>

#include "dischive/amazon.h"
#include "dischive/text.h"
#include "dischive/xml_response.h"

namespace dischive {

bool SetRequestUrl(std::string_view url, HttpRequest& request) {
  bool secure = false;
  if (StartsWithIgnoreCase(url, "http://")) {
    url.remove_prefix(7);
  } else if (StartsWithIgnoreCase(url, "https://")) {
    url.remove_prefix(8);
    secure = true;
  } else {
    return false;
  }
  const size_t slash = url.find_first_of("/?#");
  std::string_view authority = url.substr(0, slash);
  std::string object = slash == std::string_view::npos ? "/" : std::string(url.substr(slash));
  object = object.substr(0, object.find('#'));
  if (object.empty() || object.front() != '/') object.insert(0, "/");
  uint16_t port = secure ? 443 : 80;
  if (const size_t colon = authority.rfind(':');
      colon != std::string_view::npos && authority.find(']') == std::string_view::npos) {
    const std::string_view digits = authority.substr(colon + 1);
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value == 0 ||
        value > 65535) {
      return false;
    }
    port = static_cast<uint16_t>(value);
    authority = authority.substr(0, colon);
  }
  if (authority.empty() || authority.find('@') != std::string_view::npos) return false;
  // The transport speaks TLS exactly on port 443.
  if (secure != (port == 443)) return false;
  request.server = std::string(authority);
  request.port = port;
  request.object = std::move(object);
  return true;
}

HResult FetchAmazonAnswer(std::string_view url, HttpRequest& request, AmazonAnswer& answer) {
  answer = AmazonAnswer();
  if (!SetRequestUrl(url, request)) {
    answer.error_message = "not a usable http address";
    return kNotHttpAddress;
  }
  const size_t limit = LoadXmlMaxBytes(*GlobalSettings());
  request.verb = "GET";
  request.max_body = limit;
  const HResult result = PerformHttpRequest(request);
  if (result != kOk) return result;
  const HResult parsed = ParseAmazonAnswer(request.response_body, answer, limit);
  if (request.status_code != 200) {
    // The error document says why (throttled, bad signature, unknown key);
    // without one the status line has to do.
    if (parsed != kFreedbServiceError || answer.error_code.empty()) {
      answer = AmazonAnswer();
      answer.error_message = "the server answered HTTP " + std::to_string(request.status_code);
    }
    return kHttpStatusNotOk;
  }
  return parsed;
}

}  // namespace dischive
