// Connection settings of the transport (group "internet2") and the agent.
#include <algorithm>
#include <string>

#include "dischive/http.h"
#include "dischive/version.h"

namespace dischive {
namespace {
constexpr std::string_view kGroup = "internet2";
constexpr int32_t kPlainHttpPort = 80;
constexpr int32_t kDefaultDeadlineSeconds = 120;
constexpr int32_t kLongestDeadlineSeconds = 24 * 3600;
}  // namespace

InternetSettings LoadInternetSettings(const SettingsStore& settings) {
  InternetSettings out;
  out.agent = AgentText();
  // A zero, negative or unreadable deadline would mean "wait for ever": keep
  // the default then, and cap the value at a day.
  int32_t deadline = settings.GetInt(kGroup, "request_deadline", kDefaultDeadlineSeconds);
  if (deadline <= 0) deadline = kDefaultDeadlineSeconds;
  deadline = std::min(deadline, kLongestDeadlineSeconds);
  out.request_deadline = std::chrono::seconds(deadline);
  out.preconfigured = settings.GetInt(kGroup, "preconfig_http_proxy", 1) != 0;
  out.use_proxy = false;
  if (out.preconfigured) return out;

  out.use_proxy = settings.GetInt(kGroup, "use_http_proxy", 0) != 0;
  if (!out.use_proxy) return out;
  out.proxy_address = settings.GetString(kGroup, "http_proxy_address", "");
  if (out.proxy_address.empty()) {
    out.use_proxy = false;  // nothing to connect through: go direct
    return out;
  }
  // Port 80 is never written out: a bare host name means port 80.
  const int32_t port = settings.GetInt(kGroup, "http_proxy_port", kPlainHttpPort);
  if (port != kPlainHttpPort) {
    out.proxy_address += ':';
    out.proxy_address += std::to_string(port);
  }
  return out;
}

void ApplyInternetSettings(const InternetSettings& settings, HttpRequest& request) {
  request.agent = settings.agent;
  request.deadline = settings.request_deadline;
  if (settings.preconfigured) {
    request.access_type = AccessType::kPreconfigured;
    request.proxy.clear();
  } else if (settings.use_proxy) {
    request.access_type = AccessType::kNamedProxy;
    request.proxy = settings.proxy_address;
  } else {
    request.access_type = AccessType::kDirect;
    request.proxy.clear();
  }
}

}  // namespace dischive
