#include "util/url.h"

#include "dischive/text.h"
#include "util/parse.h"

namespace dischive {
namespace {

std::optional<HttpUrl> Refuse(std::string* why, std::string text) {
  if (why != nullptr) *why = std::move(text);
  return std::nullopt;
}

}  // namespace

std::optional<HttpUrl> ParseHttpUrl(std::string_view url, std::string* why) {
  HttpUrl out;
  bool secure = false;
  if (StartsWithIgnoreCase(url, "http://")) {
    url.remove_prefix(7);
  } else if (StartsWithIgnoreCase(url, "https://")) {
    url.remove_prefix(8);
    secure = true;
  } else {
    return Refuse(why, "not an http:// or https:// address");
  }
  url = url.substr(0, url.find('#'));
  const size_t path_start = url.find_first_of("/?");
  const std::string_view authority = url.substr(0, path_start);
  if (path_start != std::string_view::npos) {
    out.object = std::string(url.substr(path_start));
    if (out.object.front() == '?') out.object.insert(0, "/");
  }
  if (authority.find('@') != std::string_view::npos) {
    return Refuse(why, "user names in the address are not supported");
  }
  std::string_view host = authority;
  std::string_view port_text;
  bool has_port = false;
  if (!authority.empty() && authority.front() == '[') {  // [IPv6]:port
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) return Refuse(why, "unclosed '[' in the host");
    host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') return Refuse(why, "unexpected text after the host");
      port_text = authority.substr(close + 2);
      has_port = true;
    }
  } else if (const size_t colon = authority.find(':'); colon != std::string_view::npos) {
    // A second colon means an IPv6 literal without its brackets.
    if (authority.find(':', colon + 1) != std::string_view::npos) {
      return Refuse(why, "an IPv6 address needs brackets: [" + std::string(authority) + "]");
    }
    host = authority.substr(0, colon);
    port_text = authority.substr(colon + 1);
    has_port = true;
  }
  if (host.empty()) return Refuse(why, "no host name");
  out.host = std::string(host);
  out.port = secure ? 443 : 80;
  if (has_port && !port_text.empty()) {  // "host:" keeps the default port
    const std::optional<uint16_t> port = ParsePort(port_text);
    if (!port) return Refuse(why, "invalid port \"" + std::string(port_text) + "\"");
    out.port = *port;
  }
  if (secure != (out.port == 443)) {
    return Refuse(why, secure ? "https is available on port 443 only" : "port 443 is always https");
  }
  return out;
}

}  // namespace dischive
