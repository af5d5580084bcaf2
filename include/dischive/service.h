// The collection service's envelope protocol: every exchange is one POST of an
// XML request envelope to "/xml" on the service host, answered by an XML
// response envelope. Requests with cover images go as a multipart form.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/http.h"
#include "dischive/result.h"

namespace dischive {

/// A name/value pair of a request or a response.
struct ServiceParam {
  std::string name;
  std::string value;
  bool operator==(const ServiceParam&) const = default;
};

/// One cover image of a "cover" request: the JPEG bytes (not owned) and the
/// album identifier (16 hexadecimal digits). Attachment k (1-based) is the
/// form part "file<k>".
struct CoverAttachment {
  std::string_view bytes;
  std::string album_id;
};

/// The service's state of one album, from a "list" answer. Fields that failed
/// their check stay zero or empty.
struct AlbumState {
  std::string id;          ///< exactly 16 hexadecimal digits
  uint32_t modified = 0;   ///< from exactly 8 hexadecimal digits
  uint32_t played = 0;     ///< last-played time
  uint32_t rated = 0;      ///< last-rated time
  std::string cover_hash;  ///< exactly 32 hexadecimal digits, or empty
  bool operator==(const AlbumState&) const = default;
};

/// The built-in service host, used when the setting is empty.
inline constexpr std::string_view kDefaultServiceHost = "collection.dischive.net";

/// The library-wide service host name ("host" or "host:port").
std::string ServiceHostName();
/// Sets the service host name; an empty text puts the built-in default back.
void SetServiceHostName(std::string_view host);
/// The host from the setting "internet2"/"service_host" (default when empty).
std::string ConfiguredServiceHost(const SettingsStore& settings);

/// Splits "host" or "host:port" (also "[v6]:port"); port 80 when none is
/// given. False when the host is empty, the port is not a number from 1 to
/// 65535, or it is 443 (the service speaks plain HTTP).
bool SplitServiceHost(std::string_view host, std::string& server, uint16_t& port);

/// The last error message of the service (from a response's error element),
/// or none. Cleared at the start of every request.
std::optional<std::string> ServiceErrorMessage();
void ClearServiceErrorMessage();

/// The value of the first pair whose name equals `name` exactly, or nullptr.
const std::string* FindServiceParam(const std::vector<ServiceParam>& params, std::string_view name);

/// Builds the request envelope. For "put" the collection document is read from
/// `payload_file` (its text after the first ">", leading white space skipped);
/// for "cover" one "Cover" line per attachment names its hash and album. Returns
/// 0, or the system's code when the payload file cannot be read.
HResult BuildServiceEnvelope(std::string_view command, const std::vector<ServiceParam>& params,
                             const std::filesystem::path& payload_file,
                             const std::vector<CoverAttachment>& covers, std::string& envelope);

/// A multipart form: the body sent, the copy written to the log (the images
/// replaced by a note) and the boundary.
struct MultipartForm {
  std::string body;
  std::string log;
  std::string boundary;
};

/// Draws a boundary with `draw` (by default a new random identifier) until it
/// does not occur in the envelope, and lays out the form: the envelope as part
/// "req", then for "cover" each attachment as part "file<k>".
MultipartForm BuildMultipartForm(std::string_view envelope, std::string_view command,
                                 const std::vector<CoverAttachment>& covers,
                                 const std::function<std::string()>& draw = {});

/// Longest response envelope parsed by default.
inline constexpr size_t kMaxServiceResponse = size_t{64} << 20;

/// Reads a response envelope (HTTP status 200). Answers that declare a
/// document type (and so could declare entities) are refused with kFail. An error element fails
/// with kFreedbServiceError and sets the last error message from its Description, or from its
/// non-zero Code. Otherwise the result params are appended to `params` (when given) and, for
/// "list", the album states to `albums`.
HResult ParseServiceResponse(std::string_view body, std::string_view command,
                             std::vector<ServiceParam>* params, std::vector<AlbumState>* albums);

/// How a request reaches the service.
struct ServiceConnection {
  HttpSession* session = nullptr;  ///< reused between requests; none: one per request
  InternetSettings internet;       ///< proxy and agent
  std::string host;                ///< empty: ServiceHostName()
  std::string* log = nullptr;      ///< transcript of each exchange is appended here
  /// Status texts ("Connecting to ...") for the user.
  std::function<void(const std::string&)> status;
  std::chrono::milliseconds receive_timeout{30000};
  /// Longest answer read; a longer one is refused before it is parsed.
  size_t max_response = kMaxServiceResponse;
};

/// One request: the envelope as a plain XML body, or with `with_covers` as a
/// multipart form carrying the attachments. Returns 0, kFreedbServiceError (an
/// error element), kHttpStatusNotOk, or the transport's, the payload file's or
/// the XML reader's failure.
HResult SendServiceRequest(ServiceConnection& connection, std::string_view command,
                           const std::vector<ServiceParam>& params,
                           std::vector<ServiceParam>* result_params,
                           const std::filesystem::path& payload_file,
                           const std::vector<CoverAttachment>& covers,
                           std::vector<AlbumState>* albums, bool with_covers = false);

}  // namespace dischive
