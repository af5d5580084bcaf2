// The one reader of "http://" and "https://" addresses, for every setting and
// command that names a web server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dischive {

/// An address split the way the HTTP transport takes it.
struct HttpUrl {
  std::string host;          ///< a name or an address; IPv6 literals without brackets
  uint16_t port = 80;        ///< 80 for http, 443 for https unless given
  std::string object = "/";  ///< path and query, always starting with "/"
};

/// Reads "http://host[:port][/path][?query][#fragment]" or the same with
/// https. The host may be an IPv6 literal in brackets; the fragment is
/// dropped as a browser would not send it. User information ("user@") is
/// refused, as is a port that does not match the scheme (the transport speaks
/// TLS exactly on port 443). On failure *why (when given) says what is wrong.
std::optional<HttpUrl> ParseHttpUrl(std::string_view url, std::string* why = nullptr);

}  // namespace dischive
