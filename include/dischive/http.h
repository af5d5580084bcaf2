// The HTTP transport: one request record filled by the caller, a reusable
// session that keeps its connection, the proxy and agent settings, the
// connection transcript, and XML responses.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "dischive/errors.h"
#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive {

/// How a session reaches the server.
enum class AccessType : uint32_t {
  kPreconfigured = 0,  ///< the system's configuration (the usual proxy environment variables)
  kDirect = 1,         ///< no proxy at all
  kNamedProxy = 3,     ///< the proxy named in the request
};

/// Proxy and agent settings (group "internet2").
struct InternetSettings {
  bool preconfigured = true;  ///< "preconfig_http_proxy", default 1
  bool use_proxy = false;     ///< "use_http_proxy", default 0
  std::string proxy_address;  ///< host, plus ":port" unless the port is 80
  std::string agent;          ///< "DiscHive %d.%d"
  /// "request_deadline" in seconds, default 120: the longest a whole request
  /// may take, however steadily its data arrives.
  std::chrono::milliseconds request_deadline{120000};
};

/// Reads the settings as the transport uses them.
InternetSettings LoadInternetSettings(const SettingsStore& settings);

/// The response grew past HttpRequest::max_body (the transport's "maximum
/// file size exceeded" code).
inline constexpr HResult kHttpBodyTooLarge = kCurlErrorBase + 63;

/// Outcomes of the host's prompt for an authentication or certificate problem.
inline constexpr uint32_t kPromptContinue = 0;   ///< return the response as it is
inline constexpr uint32_t kPromptRetry = 12032;  ///< send the request again
inline constexpr uint32_t kPromptCancel = 1223;  ///< end the request with 1223

/// The host's prompt: called with the error (0 for a 401/407 response) and the
/// status code; returns one of the outcomes above (any other value ends the
/// request with that value as the error).
using HttpPrompt = std::function<uint32_t(HResult error, uint32_t status)>;

/// Progress of a response body: bytes received and the announced total (0
/// when the server did not say). Returning false cancels the request (12017).
using HttpProgress = std::function<bool(uint64_t received, uint64_t expected)>;

/// One request and, after the call, its response.
struct HttpRequest {
  // Connection.
  AccessType access_type = AccessType::kPreconfigured;
  std::string proxy;         ///< "host" or "host:port" for kNamedProxy
  std::string proxy_bypass;  ///< hosts not to send through the proxy
  std::string agent;         ///< user agent
  HttpPrompt prompt;         ///< the host's prompt; none: 401/407 returned, TLS errors end
  /// Credentials answered to a 401 (server) or 407 (proxy) challenge; a prompt
  /// fills them before it asks for a retry. Ignored with no_authentication.
  std::string user;
  std::string password;

  // The request.
  std::string extra_headers;       ///< CR LF separated headers added or replacing ours
  bool decoding = false;           ///< accept and decode compressed bodies
  bool no_authentication = false;  ///< never answer an authentication challenge
  std::string server;
  uint16_t port = 80;        ///< 443 means TLS
  std::string object = "/";  ///< path and query
  std::string verb = "GET";
  std::string body;  ///< data to send (POST)

  // Limits.
  std::chrono::milliseconds connect_timeout{60000};
  std::chrono::milliseconds receive_timeout{30000};  ///< longest time without data
  /// Longest time for the whole exchange, connecting included (0: none); a
  /// server that trickles data never trips the receive time-out, this ends it.
  std::chrono::milliseconds deadline{120000};
  size_t max_body = size_t{64} << 20;  ///< a longer body ends the request
  HttpProgress progress;               ///< optional; called as the body arrives

  // The response.
  std::string sent_headers;      ///< raw request headers as sent, CR LF separated
  std::string response_headers;  ///< raw response headers, CR LF separated
  std::string response_body;     ///< the body (kept in part after a failure)
  uint32_t status_code = 0;
};

/// Copies agent, access type, proxy and deadline from the settings into a request.
void ApplyInternetSettings(const InternetSettings& settings, HttpRequest& request);

/// A connection kept between requests to the same server. The first request
/// opens it with its agent, access type, proxy, server and port; later requests
/// on the session reuse it as it is (their own connection fields are not
/// read) until CloseHttpSession. Not to be shared between threads.
class HttpSession {
 public:
  HttpSession();
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;
  HttpSession(HttpSession&&) noexcept;
  HttpSession& operator=(HttpSession&&) noexcept;

  bool is_open() const;
  struct Impl;

 private:
  friend HResult ExecuteHttpRequest(HttpRequest& request, HttpSession& session);
  friend void CloseHttpSession(HttpSession& session);
  std::unique_ptr<Impl> impl_;
};

/// Sends one request on the session (opening it on first use) and collects the
/// response into the request. Returns 0 when the exchange took place (the caller
/// checks the status code), else the error: a WinINet number (12002 time-out,
/// 12007 name not resolved, 12029 cannot connect, 12030 connection broken off,
/// 12045 untrusted certificate, ...), 1223 when the prompt cancelled,
/// kHttpBodyTooLarge, or kCurlErrorBase + CURLcode. When the response arrived
/// and its body broke off, headers, status and the partial body are kept
/// beside the error; a failure before the response leaves them empty.
HResult ExecuteHttpRequest(HttpRequest& request, HttpSession& session);
/// Closes the session's connection.
void CloseHttpSession(HttpSession& session);
/// One request on a session of its own.
HResult PerformHttpRequest(HttpRequest& request);

/// Direction of transcript lines.
enum class TranscriptDirection : int { kNote = 0, kReceived = 1, kSent = 2 };

/// Appends text to the transcript, line by line with the direction's marker
/// (">| " sent, "<| " received, none for notes) and "\r\n".
void AppendTranscriptLines(std::string& transcript, std::string_view text,
                           TranscriptDirection direction);
/// Appends a request's exchange: sent headers, sent body (password masked),
/// response headers, and the body when it is text.
void FormatHttpTranscript(std::string& transcript, const HttpRequest& request);

}  // namespace dischive
