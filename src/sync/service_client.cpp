// Sending requests to the collection service: the library-wide host name and
// last error message, and the exchange itself through the HTTP transport.
#include <mutex>

#include "dischive/service.h"
#include "dischive/strings.h"
#include "sync/service_state.h"
#include "util/url.h"

namespace dischive {
namespace {

// Requests are made from one thread at a time, but the notifier reads the host
// from its own thread, so the state is guarded all the same.
std::mutex g_state_mutex;
std::string g_host(kDefaultServiceHost);
std::optional<std::string> g_last_error;

std::string FillPlaceholder(std::string text, std::string_view value) {
  if (const size_t at = text.find("%s"); at != std::string::npos) text.replace(at, 2, value);
  return text;
}

}  // namespace

namespace detail {
void SetServiceErrorMessage(std::string message) {
  const std::lock_guard<std::mutex> lock(g_state_mutex);
  g_last_error = std::move(message);
}
}  // namespace detail

std::string ServiceHostName() {
  const std::lock_guard<std::mutex> lock(g_state_mutex);
  return g_host;
}

void SetServiceHostName(std::string_view host) {
  const std::lock_guard<std::mutex> lock(g_state_mutex);
  g_host = host.empty() ? std::string(kDefaultServiceHost) : std::string(host);
}

std::string ConfiguredServiceHost(const SettingsStore& settings) {
  std::string host = settings.GetString("internet2", "service_host", "");
  return host.empty() ? std::string(kDefaultServiceHost) : host;
}

bool SplitServiceHost(std::string_view host, std::string& server, uint16_t& port) {
  // The host setting is the authority part of an http address: read it with
  // the one address parser, refusing anything that is not host and port.
  if (host.empty() || host.back() == ':' || host.find_first_of("/?#@ ") != std::string_view::npos) {
    return false;
  }
  std::optional<HttpUrl> url = ParseHttpUrl("http://" + std::string(host));
  if (!url || url->port == 0) return false;
  server = std::move(url->host);
  port = url->port;
  return true;
}

std::optional<std::string> ServiceErrorMessage() {
  const std::lock_guard<std::mutex> lock(g_state_mutex);
  return g_last_error;
}

void ClearServiceErrorMessage() {
  const std::lock_guard<std::mutex> lock(g_state_mutex);
  g_last_error.reset();
}

const std::string* FindServiceParam(const std::vector<ServiceParam>& params,
                                    std::string_view name) {
  for (const ServiceParam& p : params) {
    if (p.name == name) return &p.value;
  }
  return nullptr;
}

HResult SendServiceRequest(ServiceConnection& connection, std::string_view command,
                           const std::vector<ServiceParam>& params,
                           std::vector<ServiceParam>* result_params,
                           const std::filesystem::path& payload_file,
                           const std::vector<CoverAttachment>& covers,
                           std::vector<AlbumState>* albums, bool with_covers) {
  ClearServiceErrorMessage();
  std::string envelope;
  if (const HResult built = BuildServiceEnvelope(command, params, payload_file, covers, envelope);
      built != kOk) {
    return built;
  }

  HttpRequest request;
  ApplyInternetSettings(connection.internet, request);
  const std::string host = connection.host.empty() ? ServiceHostName() : connection.host;
  if (!SplitServiceHost(host, request.server, request.port)) return kInvalidArgument;
  request.verb = "POST";
  request.object = "/xml";
  request.receive_timeout = connection.receive_timeout;
  request.max_body = connection.max_response;
  std::string log_body;
  if (with_covers) {
    MultipartForm form = BuildMultipartForm(envelope, command, covers);
    request.extra_headers = "Content-Type: multipart/form-data, boundary=" + form.boundary;
    request.body = std::move(form.body);
    log_body = std::move(form.log);
  } else {
    request.extra_headers = "Content-Type: text/xml; charset=UTF-8";
    request.body = std::move(envelope);
  }

  if (connection.status) {
    const bool proxied = request.access_type == AccessType::kNamedProxy;
    connection.status(
        FillPlaceholder(LoadHostString(strings::kConnecting), proxied ? request.proxy : host));
  }

  HttpSession own_session;
  HttpSession& session = connection.session != nullptr ? *connection.session : own_session;
  const HResult sent = ExecuteHttpRequest(request, session);
  if (sent != kOk) return sent;
  if (connection.log != nullptr) {
    if (with_covers) request.body = std::move(log_body);  // the log shows no image bytes
    FormatHttpTranscript(*connection.log, request);
  }
  if (request.status_code != 200) return kHttpStatusNotOk;
  return ParseServiceResponse(request.response_body, command, result_params, albums);
}

}  // namespace dischive
