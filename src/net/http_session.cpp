// The HTTP transport on libcurl. One easy handle per session keeps the
// connection open between requests; every request starts from a reset handle
// (libcurl keeps live connections across a reset) and sets its own options, so
// nothing of one request leaks into the next.
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "dischive/http.h"
#include "dischive/text.h"
#include "net/curl_error.h"
#include "platform/memory.h"

namespace dischive {

using Clock = std::chrono::steady_clock;

namespace {

constexpr HResult kInetOutOfHandles = 12001;
constexpr HResult kInetInvalidUrl = 12005;
constexpr HResult kInvalidParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr long kDefaultProxyPort = 80;     // WinINet's default; libcurl's would be 1080
constexpr long kReceiveBufferSize = 256 * 1024;
constexpr size_t kLargeBody = size_t{8} << 20;
constexpr size_t kMaxResponseHeaders = size_t{256} << 10;  // below libcurl's own limit
constexpr HResult kInetInvalidServerResponse = 12152;

void EnsureCurlInitialized() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

bool HasControlOrBlank(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) return true;
  }
  return false;
}

// A host name or address literal that cannot smuggle a path, a query or user
// information into the URL.
bool IsValidServer(std::string_view server) {
  if (server.empty() || HasControlOrBlank(server)) return false;
  return server.find_first_of("/?#@\\") == std::string_view::npos;
}

// The per-attempt state the callbacks fill.
struct Transfer {
  CURL* curl = nullptr;
  size_t max_body = 0;
  Clock::duration receive_timeout{};
  const HttpProgress* progress = nullptr;

  std::string sent_headers;
  std::string response_headers;
  std::string body;
  bool in_header_out = false;
  bool headers_complete = false;  // the final (non-1xx) header block has ended
  bool body_too_large = false;
  bool headers_too_large = false;
  bool receive_timed_out = false;
  bool connected = false;
  curl_off_t last_down = 0;
  curl_off_t last_up = 0;
  Clock::time_point last_activity = Clock::now();
};

// Response headers, one line per call; a new status line starts a new block
// (a 1xx answer, a proxy's CONNECT answer or an authentication round trip
// before the final one).
size_t OnHeader(char* data, size_t size, size_t count, void* user) {
  auto& t = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  t.last_activity = Clock::now();
  std::string_view line(data, length);
  if (line.substr(0, 5) == "HTTP/") {
    t.response_headers.clear();
    t.body.clear();
    t.headers_complete = false;
  }
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
    line.remove_suffix(1);
  if (line.size() + 2 > kMaxResponseHeaders - t.response_headers.size()) {
    t.headers_too_large = true;  // a server that never ends its headers
    return 0;
  }
  t.response_headers.append(line);
  t.response_headers.append("\r\n");
  if (line.empty()) {
    long status = 0;
    curl_easy_getinfo(t.curl, CURLINFO_RESPONSE_CODE, &status);
    t.headers_complete = status >= 200 || status == 0;
    // Hold the body once: take its announced size (within the limit) up front.
    curl_off_t announced = -1;
    curl_easy_getinfo(t.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (t.headers_complete && announced > 0) {
      const auto wanted = static_cast<unsigned long long>(announced);
      t.body.reserve(wanted < t.max_body ? static_cast<size_t>(wanted) : t.max_body);
      if (t.body.capacity() >= kLargeBody) {
        platform::AdviseSequentialFill(t.body.data(), t.body.capacity());
      }
    }
  }
  return length;
}

size_t OnBody(char* data, size_t size, size_t count, void* user) {
  auto& t = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  t.last_activity = Clock::now();
  const size_t room = t.max_body - t.body.size();
  if (length > room) {
    // Keep what fits and end the transfer: a body past the limit is refused
    // rather than allowed to exhaust memory.
    t.body.append(data, room);
    t.body_too_large = true;
    return 0;
  }
  t.body.append(data, length);
  return length;
}

// The request headers exactly as sent (libcurl shows them only to the debug
// callback, and only in verbose mode).
int OnDebug(CURL*, curl_infotype type, char* data, size_t size, void* user) {
  auto& t = *static_cast<Transfer*>(user);
  if (type == CURLINFO_HEADER_OUT) {
    if (!t.in_header_out) t.sent_headers.clear();
    t.sent_headers.append(data, size);
    t.in_header_out = true;
  } else {
    t.in_header_out = false;
  }
  return 0;
}

// The connection is ready (new or reused): from now on the receive time-out
// counts, the connect time-out no longer.
int OnConnected(void* user, char*, char*, int, int) {
  auto& t = *static_cast<Transfer*>(user);
  t.connected = true;
  t.last_activity = Clock::now();
  return CURL_PREREQFUNC_OK;
}

// Ends a transfer that has gone without data longer than the receive time-out
// (libcurl's own low-speed limit counts whole seconds only).
int OnProgress(void* user, curl_off_t total, curl_off_t down, curl_off_t, curl_off_t up) {
  auto& t = *static_cast<Transfer*>(user);
  const Clock::time_point now = Clock::now();
  if (down != t.last_down || up != t.last_up) {
    t.last_down = down;
    t.last_up = up;
    t.last_activity = now;
  }
  if (t.connected && now - t.last_activity > t.receive_timeout) {
    t.receive_timed_out = true;
    return 1;
  }
  if (t.progress != nullptr && *t.progress && t.headers_complete &&
      !(*t.progress)(static_cast<uint64_t>(down),
                     static_cast<uint64_t>(std::max<curl_off_t>(total, 0)))) {
    return 1;  // the caller cancelled: reported as 12017
  }
  return 0;
}

// WinINet's bypass list is separated by ';' or blanks, libcurl's by commas.
// "<local>" (names without a dot) has no libcurl form; the loopback names are
// its usual intent.
std::string NoProxyList(std::string_view bypass) {
  std::string out;
  size_t pos = 0;
  while (pos < bypass.size()) {
    const size_t end = bypass.find_first_of("; ,\t", pos);
    std::string_view item = bypass.substr(pos, end == std::string_view::npos ? end : end - pos);
    pos = end == std::string_view::npos ? bypass.size() : end + 1;
    if (item.empty()) continue;
    if (!out.empty()) out += ',';
    if (EqualsIgnoreCase(item, "<local>")) {
      out += "localhost,127.0.0.1,::1";
    } else {
      out += item;
    }
  }
  return out;
}

// Splits the caller's CR LF separated headers into a libcurl list and adds the
// removals that make libcurl send what WinINet sends: no "Accept", no
// "Expect: 100-continue", and no invented content type for a body.
Slist BuildHeaderList(std::string_view extra, bool sends_body) {
  curl_slist* list = nullptr;
  bool has_accept = false, has_expect = false, has_content_type = false;
  size_t pos = 0;
  while (pos < extra.size()) {
    const size_t end = extra.find_first_of("\r\n", pos);
    std::string_view line = extra.substr(pos, end == std::string_view::npos ? end : end - pos);
    pos = end == std::string_view::npos ? extra.size() : end + 1;
    line = TrimBlanks(line);
    if (line.empty()) continue;
    has_accept |= StartsWithIgnoreCase(line, "accept:");
    has_expect |= StartsWithIgnoreCase(line, "expect:");
    has_content_type |= StartsWithIgnoreCase(line, "content-type:");
    list = curl_slist_append(list, std::string(line).c_str());
  }
  if (!has_accept) list = curl_slist_append(list, "Accept:");
  if (!has_expect) list = curl_slist_append(list, "Expect:");
  if (sends_body && !has_content_type) list = curl_slist_append(list, "Content-Type:");
  return Slist(list);
}

}  // namespace

// The easy handle and the connection parameters fixed when it was opened: a
// session is reused as it is, with the agent, proxy and server of its first
// request.
struct HttpSession::Impl {
  CURL* curl = nullptr;
  AccessType access_type = AccessType::kPreconfigured;
  std::string proxy;
  std::string proxy_bypass;
  std::string agent;
  std::string server;
  uint16_t port = 80;

  ~Impl() {
    if (curl != nullptr) curl_easy_cleanup(curl);
  }
};

HttpSession::HttpSession() : impl_(std::make_unique<Impl>()) {}
HttpSession::~HttpSession() = default;
HttpSession::HttpSession(HttpSession&&) noexcept = default;
HttpSession& HttpSession::operator=(HttpSession&&) noexcept = default;

bool HttpSession::is_open() const {
  return impl_ != nullptr && impl_->curl != nullptr;
}

void CloseHttpSession(HttpSession& session) {
  if (session.impl_ == nullptr) return;
  if (session.impl_->curl != nullptr) curl_easy_cleanup(session.impl_->curl);
  session.impl_->curl = nullptr;
}

namespace {

// What the send loop relaxes after the host accepted a problem.
struct Relaxations {
  bool skip_peer_check = false;
  bool skip_host_check = false;
  bool proxy_challenge = false;       // the credentials answer a 407
  unsigned long auth = CURLAUTH_ANY;  // the schemes the challenge offered
};

// The authentication schemes a 401/407 offers. A Basic-only challenge lets the
// credentials go with the very next request instead of after another probe.
unsigned long OfferedSchemes(std::string_view headers, bool proxy) {
  const std::string_view name = proxy ? "proxy-authenticate:" : "www-authenticate:";
  unsigned long schemes = 0;
  size_t pos = 0;
  while (pos < headers.size()) {
    const size_t end = std::min(headers.find("\r\n", pos), headers.size());
    std::string_view line = headers.substr(pos, end - pos);
    pos = end + 2;
    if (!StartsWithIgnoreCase(line, name)) continue;
    const std::string_view value = TrimBlanks(line.substr(name.size()));
    const std::string_view scheme = value.substr(0, value.find(' '));
    if (EqualsIgnoreCase(scheme, "Basic"))
      schemes |= CURLAUTH_BASIC;
    else if (EqualsIgnoreCase(scheme, "Digest"))
      schemes |= CURLAUTH_DIGEST;
    else if (EqualsIgnoreCase(scheme, "NTLM"))
      schemes |= CURLAUTH_NTLM;
    else if (EqualsIgnoreCase(scheme, "Negotiate"))
      schemes |= CURLAUTH_NEGOTIATE;
  }
  return schemes != 0 ? schemes : CURLAUTH_ANY;
}

void Configure(CURL* curl, const HttpSession::Impl& session, const HttpRequest& request,
               const Relaxations& relax, curl_slist* headers, Transfer& t) {
  const bool secure = session.port == 443;
  std::string host = session.server;
  if (host.find(':') != std::string::npos) host = "[" + host + "]";  // IPv6 literal
  std::string url = secure ? "https://" : "http://";
  url += host;
  url += ':';
  url += std::to_string(session.port);
  if (request.object.empty() || request.object.front() != '/') url += '/';
  url += request.object;

  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);  // a 301/302 goes to the caller
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(request.connect_timeout.count()));
  // The overall deadline, and libcurl's own low-speed limit (whole seconds) as
  // a backstop to the finer receive time-out of OnProgress.
  if (request.deadline.count() > 0) {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.deadline.count()));
  }
  const auto idle_seconds =
      std::chrono::ceil<std::chrono::seconds>(request.receive_timeout).count();
  if (idle_seconds > 0) {
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(idle_seconds + 1));
  }
  const auto largest = static_cast<size_t>(std::numeric_limits<curl_off_t>::max());
  curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE,
                   static_cast<curl_off_t>(std::min(request.max_body, largest)));
  if (!session.agent.empty()) curl_easy_setopt(curl, CURLOPT_USERAGENT, session.agent.c_str());

  switch (session.access_type) {
    case AccessType::kPreconfigured:
      break;  // libcurl reads http_proxy, https_proxy, all_proxy and no_proxy
    case AccessType::kDirect:
      curl_easy_setopt(curl, CURLOPT_PROXY, "");  // also ignores the environment
      break;
    case AccessType::kNamedProxy:
      curl_easy_setopt(curl, CURLOPT_PROXY, session.proxy.c_str());
      curl_easy_setopt(curl, CURLOPT_PROXYPORT, kDefaultProxyPort);
      curl_easy_setopt(curl, CURLOPT_NOPROXY, NoProxyList(session.proxy_bypass).c_str());
      break;
  }

  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  if (request.decoding) curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");

  const std::string& verb = request.verb.empty() ? std::string("GET") : request.verb;
  if (verb == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (!request.body.empty() || verb == "POST") {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    if (verb != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, verb.c_str());
  } else if (verb != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, verb.c_str());
  }

  if (!request.no_authentication && !request.user.empty()) {
    if (relax.proxy_challenge) {
      curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, request.user.c_str());
      curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, request.password.c_str());
      curl_easy_setopt(curl, CURLOPT_PROXYAUTH, relax.auth);
    } else {
      curl_easy_setopt(curl, CURLOPT_USERNAME, request.user.c_str());
      curl_easy_setopt(curl, CURLOPT_PASSWORD, request.password.c_str());
      curl_easy_setopt(curl, CURLOPT_HTTPAUTH, relax.auth);
    }
  }
  if (relax.skip_peer_check) curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  if (relax.skip_host_check) curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);

  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &OnHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &t);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OnBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &t);
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
  curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, &OnDebug);
  curl_easy_setopt(curl, CURLOPT_DEBUGDATA, &t);
  curl_easy_setopt(curl, CURLOPT_PREREQFUNCTION, &OnConnected);
  curl_easy_setopt(curl, CURLOPT_PREREQDATA, &t);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &OnProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &t);
}

// Checks what libcurl would refuse less clearly, or not at all (a CR LF in the
// object would split the request line).
HResult ValidateRequest(const HttpRequest& request, bool opening) {
  if (opening) {
    if (!IsValidServer(request.server)) return kInetInvalidUrl;
    switch (request.access_type) {
      case AccessType::kPreconfigured:
      case AccessType::kDirect:
        break;
      case AccessType::kNamedProxy:
        if (request.proxy.empty() || HasControlOrBlank(request.proxy)) return kInvalidParameter;
        break;
      default:
        return kInvalidParameter;
    }
  }
  if (HasControlOrBlank(request.object)) return kInetInvalidUrl;
  if (HasControlOrBlank(request.verb)) return kInvalidParameter;
  for (const char c : request.extra_headers) {
    if (c == '\0') return kInvalidParameter;
  }
  return kOk;
}

}  // namespace

HResult ExecuteHttpRequest(HttpRequest& request, HttpSession& session) {
  request.sent_headers.clear();
  request.response_headers.clear();
  request.response_body.clear();
  request.status_code = 0;
  if (session.impl_ == nullptr) session.impl_ = std::make_unique<HttpSession::Impl>();
  HttpSession::Impl& s = *session.impl_;

  if (const HResult invalid = ValidateRequest(request, s.curl == nullptr); invalid != kOk) {
    return invalid;
  }
  if (s.curl == nullptr) {
    EnsureCurlInitialized();
    s.curl = curl_easy_init();
    if (s.curl == nullptr) return kInetOutOfHandles;
    s.access_type = request.access_type;
    s.proxy = request.proxy;
    s.proxy_bypass = request.proxy_bypass;
    s.agent = request.agent;
    s.server = request.server;
    s.port = request.port;
  }

  const std::string& verb = request.verb.empty() ? std::string("GET") : request.verb;
  const bool sends_body = !request.body.empty() || verb == "POST";
  Slist headers = BuildHeaderList(request.extra_headers, sends_body);
  Relaxations relax;

  for (;;) {
    Transfer t;
    t.curl = s.curl;
    t.max_body = request.max_body;
    t.receive_timeout = request.receive_timeout;
    t.progress = &request.progress;
    curl_easy_reset(s.curl);
    Configure(s.curl, s, request, relax, headers.get(), t);

    net::CurlFailure failure;
    failure.code = curl_easy_perform(s.curl);
    curl_easy_getinfo(s.curl, CURLINFO_SSL_VERIFYRESULT, &failure.ssl_verify_result);
    curl_easy_getinfo(s.curl, CURLINFO_OS_ERRNO, &failure.os_errno);
    HResult error = net::TransportErrorFromCurl(failure);
    if (t.body_too_large || failure.code == CURLE_FILESIZE_EXCEEDED) error = kHttpBodyTooLarge;
    if (t.receive_timed_out) error = 12002;
    // libcurl calls a reply that is not HTTP at all (HTTP/0.9 or noise) an
    // unsupported protocol, and a header line past its limit "out of memory";
    // for the caller both are an invalid server response.
    const bool refused_reply =
        t.connected && !t.headers_complete &&
        (failure.code == CURLE_UNSUPPORTED_PROTOCOL || failure.code == CURLE_OUT_OF_MEMORY);
    if (t.headers_too_large || refused_reply) {
      error = kInetInvalidServerResponse;
    }

    long status = 0;
    curl_easy_getinfo(s.curl, CURLINFO_RESPONSE_CODE, &status);
    long connect_status = 0;
    curl_easy_getinfo(s.curl, CURLINFO_HTTP_CONNECTCODE, &connect_status);

    bool ask = false;
    if (error == kOk) {
      ask = status == 401 || status == 407;
    } else if (connect_status == 407 && status == 0) {
      // The proxy refused to open a tunnel until it gets credentials: the
      // same case as a 407 answer to a plain request.
      error = kOk;
      status = 407;
      ask = true;
    } else if (t.headers_complete) {
      // The response arrived and its body broke off: keep what came, with the
      // error beside it.
      ask = false;
    } else if (net::IsPromptableError(error)) {
      ask = true;
    } else {
      return error;
    }

    if (ask) {
      const uint32_t outcome = request.prompt ? request.prompt(error, static_cast<uint32_t>(status))
                               : error == kOk ? kPromptContinue
                                              : error;
      if (outcome == kPromptRetry) {
        if (error == 12045 || error == 12037) relax.skip_peer_check = true;
        if (error == 12038) relax.skip_host_check = true;
        if (status == 401 || status == 407) {
          relax.proxy_challenge = status == 407;
          relax.auth = OfferedSchemes(t.response_headers, relax.proxy_challenge);
        }
        continue;
      }
      // With no response to hand back, "continue" cannot clear the error.
      if (outcome != kPromptContinue || error != kOk)
        return outcome != kPromptContinue ? outcome : error;
    }

    request.sent_headers = std::move(t.sent_headers);
    request.response_headers = std::move(t.response_headers);
    request.response_body = std::move(t.body);
    if (request.response_body.capacity() - request.response_body.size() >
        request.response_body.size() / 8 + 4096) {
      request.response_body.shrink_to_fit();
    }
    request.status_code = static_cast<uint32_t>(status);
    return error;
  }
}

HResult PerformHttpRequest(HttpRequest& request) {
  HttpSession session;
  const HResult result = ExecuteHttpRequest(request, session);
  CloseHttpSession(session);
  return result;
}

}  // namespace dischive
