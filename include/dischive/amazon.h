// Amazon product search: signed request URLs for the Product Advertising
// service (signature version 2), the album search and lookup operations, and
// the reading of their XML answers into album results.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dischive/http.h"
#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive {

/// One marketplace of the service.
struct AmazonEndpoint {
  const char* host;        ///< web-services host the requests go to
  const char* older_host;  ///< host of the older service of the same marketplace
  uint32_t name_string;    ///< string catalogue number of the marketplace's name
};

/// The six marketplaces, indexed by the setting "AwsServer": United States,
/// United Kingdom, Germany, Japan, France, Canada.
std::span<const AmazonEndpoint> AmazonEndpoints();
/// The row for an "AwsServer" value; anything outside 0-5 gives row 0.
const AmazonEndpoint& SelectAmazonEndpoint(int32_t index);

/// The operator's values, group "AmazonSearch".
struct AmazonSettings {
  std::string access_key_id;  ///< "AccessKeyId"
  std::string secret_key;     ///< "SecretKey"
  std::string associate_tag;  ///< "AssociateTag"
  int32_t server = 0;         ///< "AwsServer", 0-5 (other values act as 0)
  /// "AwsHost": "host[:port]" used instead of the marketplace's host (a
  /// regional mirror or a test server); empty for the table's host.
  std::string host_override;

  /// The host requests go to.
  std::string host() const;
  /// The names of the settings still empty among AccessKeyId, SecretKey and
  /// AssociateTag, as "AmazonSearch.AccessKeyId, ..."; empty when all are set.
  std::string MissingKeys() const;
};

AmazonSettings LoadAmazonSettings(const SettingsStore& settings);

using AmazonTime = std::chrono::system_clock::time_point;

/// "2009-01-01T12%3A00%3A00Z": the request time in UTC with its colons already
/// percent-encoded, as the "Timestamp" parameter is sent.
std::string FormatAmazonTimestamp(AmazonTime time);

/// A signed request: the URL to fetch, the canonical text that was signed and
/// the signature as it stands in the URL ("+" and "=" percent-encoded).
struct SignedAmazonUrl {
  std::string url;
  std::string canonical_text;
  std::string signature;
};

/// Signs already-encoded parameters for GET `path` on `host`: sorts them by
/// bytes, signs "GET\n" host "\n" path "\n" query with HMAC-SHA256 under the
/// secret key, and returns "http://" host path "?" query "&Signature=" ...
SignedAmazonUrl SignAmazonQuery(std::string_view host, std::string_view path,
                                std::vector<std::pair<std::string, std::string>> parameters,
                                std::string_view secret_key);

/// One request: the endpoint host and the query parameters, values stored as
/// they are sent (percent-encoded).
class AmazonRequest {
 public:
  /// Sets the common parameters: AWSAccessKeyId, AssociateTag, Version,
  /// Service and Timestamp (from `now`).
  AmazonRequest(std::string host, const AmazonSettings& settings, AmazonTime now);

  /// Adds or replaces a parameter; the value must already be encoded.
  void Set(std::string name, std::string value);
  /// The stored (encoded) value, or nullptr.
  const std::string* Find(std::string_view name) const;
  const std::string& host() const { return host_; }
  const std::vector<std::pair<std::string, std::string>>& parameters() const { return params_; }

  /// Sorts, signs and returns the URL ("/onca/xml" on the host).
  SignedAmazonUrl BuildSignedUrl(std::string_view secret_key) const;

 private:
  std::string host_;
  std::vector<std::pair<std::string, std::string>> params_;
};

/// The response groups of the album operations: "ItemAttributes,Tracks",
/// then ",Images" and ",EditorialReview" when asked for.
std::string AlbumResponseGroup(bool images, bool reviews);

/// ItemSearch by free text in the Music (or Classical) index, result page
/// `page` (1 first). Returns the signed URL.
std::string SearchAlbumsByKeywords(const AmazonSettings& settings, std::string_view text,
                                   bool classical, int page, std::string_view response_group,
                                   AmazonTime now);
/// ItemSearch by artist name.
std::string SearchAlbumsByArtist(const AmazonSettings& settings, std::string_view artist,
                                 bool classical, int page, std::string_view response_group,
                                 AmazonTime now);
/// ItemLookup of a bar code within an index; "IdType" follows the form of the
/// id: 12 digits "UPC", anything else "EAN".
std::string LookupItemInIndex(const AmazonSettings& settings, std::string_view id, bool classical,
                              std::string_view response_group, AmazonTime now);
/// ItemLookup of an ASIN.
std::string LookupItem(const AmazonSettings& settings, std::string_view asin,
                       std::string_view response_group, AmazonTime now);

/// Signs any unsigned request URL ("http://host/path?name=value&..."): values
/// are decoded and encoded again as the signature rules require, a Signature
/// already present is dropped and "Timestamp" is added from `now` unless the
/// URL has one. nullopt, with the reason in `error`, for a URL that is not an
/// http(s) address with a query.
std::optional<SignedAmazonUrl> SignAmazonUrl(std::string_view url, std::string_view secret_key,
                                             AmazonTime now, std::string& error);

/// The namespace of the service's answers.
inline constexpr std::string_view kAmazonNamespace =
    "http://webservices.amazon.com/AWSECommerceService/2011-08-01";

struct AmazonDisc {
  int number = 0;
  std::vector<std::string> tracks;
};

/// One album of an answer; texts are UTF-8, absent fields empty.
struct AmazonAlbum {
  std::string asin;
  std::string artist;
  std::string title;
  std::string label;
  std::string release_date;
  int discs = 0;  ///< "NumberOfDiscs", 0 when absent
  std::vector<AmazonDisc> tracks;
  std::string small_image;
  std::string medium_image;
  std::string large_image;
  std::string editorial_review;
  std::string detail_page;

  /// The largest image there is, or empty.
  const std::string& LargestImage() const;
};

struct AmazonAnswer {
  std::vector<AmazonAlbum> albums;
  int total_results = 0;
  int total_pages = 0;
  /// The service's own error ("AWS.ECommerceService.NoExactMatches", ...) and
  /// its message, or why the answer could not be read.
  std::string error_code;
  std::string error_message;
};

/// Reads an ItemSearch or ItemLookup answer. Returns 0 when the answer holds
/// items (albums filled; an item without ASIN is skipped), kNoFreedbMatch when
/// it holds none and the service said so, kFreedbServiceError with the
/// service's error or the reason when it is not a usable answer (not XML,
/// refused by the XML reader, wrong namespace). `max_bytes` 0 means the
/// setting "internet2" "xml_max_bytes".
HResult ParseAmazonAnswer(std::string_view body, AmazonAnswer& answer, size_t max_bytes = 0);

/// Fetches a signed URL ("http://host[:port]/path?query") through the
/// transport with the connection settings already in `request`, and reads the
/// answer. Returns the transport's error, kNotHttpAddress for a URL it cannot
/// use, kHttpStatusNotOk for a status other than 200 (with the service's error
/// from the body in `answer` when there is one, e.g. "RequestThrottled" with
/// 503), else the result of ParseAmazonAnswer. The body may be as long as the
/// XML size limit.
HResult FetchAmazonAnswer(std::string_view url, HttpRequest& request, AmazonAnswer& answer);

/// Puts an "http://host[:port]/object" address (or https on port 443) into the
/// request's server, port and object; false when it is not such an address.
bool SetRequestUrl(std::string_view url, HttpRequest& request);

}  // namespace dischive
