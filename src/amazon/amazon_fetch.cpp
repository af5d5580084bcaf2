// Fetching signed product search URLs through the transport.
#include <optional>
#include <string>

#include "dischive/amazon.h"
#include "dischive/xml_response.h"
#include "util/url.h"

namespace dischive {

bool SetRequestUrl(std::string_view url, HttpRequest& request) {
  const std::optional<HttpUrl> parsed = ParseHttpUrl(url);
  if (!parsed) return false;
  request.server = parsed->host;
  request.port = parsed->port;
  request.object = parsed->object;
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
