// Request building and signing for the product search service: the
// marketplace table, the operator's settings, the common and per-operation
// parameters, and signature version 2 (HMAC-SHA256 over the canonical text).
#include <algorithm>
#include <ctime>
#include <string>

#include "dischive/amazon.h"
#include "dischive/codec.h"
#include "dischive/text.h"

namespace dischive {
namespace {

constexpr std::string_view kGroup = "AmazonSearch";
constexpr std::string_view kPath = "/onca/xml";

constexpr AmazonEndpoint kEndpoints[] = {
    {"webservices.amazon.com", "ecs.amazonaws.com", 5755},      // United States
    {"webservices.amazon.co.uk", "ecs.amazonaws.co.uk", 5759},  // United Kingdom
    {"webservices.amazon.de", "ecs.amazonaws.de", 5760},        // Germany
    {"webservices.amazon.co.jp", "ecs.amazonaws.jp", 5761},     // Japan
    {"webservices.amazon.fr", "ecs.amazonaws.fr", 7003},        // France
    {"webservices.amazon.ca", "ecs.amazonaws.ca", 7004},        // Canada
};

std::string SearchIndex(bool classical) {
  return classical ? "Classical" : "Music";
}

// "," is sent as "%2C" in the response group list.
std::string EncodeResponseGroup(std::string_view groups) {
  std::string out;
  for (const char c : groups) {
    if (c == ',') {
      out += "%2C";
    } else {
      out += c;
    }
  }
  return out;
}

std::string ItemSearch(const AmazonSettings& settings, std::string_view text_parameter,
                       std::string_view text, bool classical, int page,
                       std::string_view response_group, AmazonTime now) {
  AmazonRequest request(settings.host(), settings, now);
  request.Set("Operation", "ItemSearch");
  request.Set("SearchIndex", SearchIndex(classical));
  request.Set(std::string(text_parameter), PercentEncode(text));
  request.Set("ItemPage", std::to_string(page));
  request.Set("ResponseGroup", EncodeResponseGroup(response_group));
  return request.BuildSignedUrl(settings.secret_key).url;
}

}  // namespace

std::span<const AmazonEndpoint> AmazonEndpoints() {
  return kEndpoints;
}

const AmazonEndpoint& SelectAmazonEndpoint(int32_t index) {
  // The index comes from a setting a user can type in: out of range means the
  // first marketplace rather than a read past the table.
  if (index < 0 || static_cast<size_t>(index) >= std::size(kEndpoints)) index = 0;
  return kEndpoints[index];
}

std::string AmazonSettings::host() const {
  return host_override.empty() ? std::string(SelectAmazonEndpoint(server).host) : host_override;
}

std::string AmazonSettings::MissingKeys() const {
  std::string missing;
  const std::pair<std::string_view, const std::string*> keys[] = {{"AccessKeyId", &access_key_id},
                                                                  {"SecretKey", &secret_key},
                                                                  {"AssociateTag", &associate_tag}};
  for (const auto& [name, value] : keys) {
    if (!value->empty()) continue;
    if (!missing.empty()) missing += ", ";
    missing += std::string(kGroup) + "." + std::string(name);
  }
  return missing;
}

AmazonSettings LoadAmazonSettings(const SettingsStore& settings) {
  AmazonSettings out;
  out.access_key_id = std::string(TrimBlanks(settings.GetString(kGroup, "AccessKeyId", "")));
  out.secret_key = settings.GetString(kGroup, "SecretKey", "");
  out.associate_tag = std::string(TrimBlanks(settings.GetString(kGroup, "AssociateTag", "")));
  out.server = settings.GetInt(kGroup, "AwsServer", 0);
  out.host_override = std::string(TrimBlanks(settings.GetString(kGroup, "AwsHost", "")));
  return out;
}

std::string FormatAmazonTimestamp(AmazonTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H%%3A%M%%3A%SZ", &utc);
  return std::string(text, length);
}

SignedAmazonUrl SignAmazonQuery(std::string_view host, std::string_view path,
                                std::vector<std::pair<std::string, std::string>> parameters,
                                std::string_view secret_key) {
  // Plain byte order, so "AWSAccessKeyId" sorts before "AssociateTag".
  std::sort(parameters.begin(), parameters.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string query;
  for (const auto& [name, value] : parameters) {
    if (!query.empty()) query += '&';
    query += name;
    query += '=';
    query += value;
  }
  SignedAmazonUrl out;
  out.canonical_text = "GET\n";
  out.canonical_text += host;
  out.canonical_text += '\n';
  out.canonical_text += path;
  out.canonical_text += '\n';
  out.canonical_text += query;

  const Sha256Digest digest = HmacSha256(secret_key, out.canonical_text);
  for (const char c : Base64Encode(digest)) {
    if (c == '+') {
      out.signature += "%2B";
    } else if (c == '=') {
      out.signature += "%3D";
    } else if (c == '/') {
      // Beyond "+" and "=", "/" is written "%2F" as well: the service's
      // published signed examples carry it so, and it decodes to the same
      // signature either way.
      out.signature += "%2F";
    } else {
      out.signature += c;
    }
  }
  out.url = "http://" + std::string(host) + std::string(path) + "?" + query +
            "&Signature=" + out.signature;
  return out;
}

AmazonRequest::AmazonRequest(std::string host, const AmazonSettings& settings, AmazonTime now)
    : host_(std::move(host)) {
  Set("AWSAccessKeyId", settings.access_key_id);
  Set("AssociateTag", settings.associate_tag);
  Set("Version", "2011-08-01");
  Set("Service", "AWSECommerceService");
  Set("Timestamp", FormatAmazonTimestamp(now));
}

void AmazonRequest::Set(std::string name, std::string value) {
  for (auto& [existing, stored] : params_) {
    if (existing == name) {
      stored = std::move(value);
      return;
    }
  }
  params_.emplace_back(std::move(name), std::move(value));
}

const std::string* AmazonRequest::Find(std::string_view name) const {
  for (const auto& [existing, stored] : params_) {
    if (existing == name) return &stored;
  }
  return nullptr;
}

SignedAmazonUrl AmazonRequest::BuildSignedUrl(std::string_view secret_key) const {
  return SignAmazonQuery(host_, kPath, params_, secret_key);
}

std::string AlbumResponseGroup(bool images, bool reviews) {
  std::string groups = "ItemAttributes,Tracks";
  if (images) groups += ",Images";
  if (reviews) groups += ",EditorialReview";
  return groups;
}

std::string SearchAlbumsByKeywords(const AmazonSettings& settings, std::string_view text,
                                   bool classical, int page, std::string_view response_group,
                                   AmazonTime now) {
  return ItemSearch(settings, "Keywords", text, classical, page, response_group, now);
}

std::string SearchAlbumsByArtist(const AmazonSettings& settings, std::string_view artist,
                                 bool classical, int page, std::string_view response_group,
                                 AmazonTime now) {
  return ItemSearch(settings, "Artist", artist, classical, page, response_group, now);
}

std::string LookupItemInIndex(const AmazonSettings& settings, std::string_view id, bool classical,
                              std::string_view response_group, AmazonTime now) {
  AmazonRequest request(settings.host(), settings, now);
  request.Set("Operation", "ItemLookup");
  request.Set("SearchIndex", SearchIndex(classical));
  // The service takes a search index only with bar codes; a 12-digit code is
  // a UPC, the others are EANs.
  const bool upc = id.size() == 12 &&
                   std::all_of(id.begin(), id.end(), [](char c) { return c >= '0' && c <= '9'; });
  request.Set("IdType", upc ? "UPC" : "EAN");
  request.Set("ItemId", PercentEncode(id));
  request.Set("ResponseGroup", EncodeResponseGroup(response_group));
  return request.BuildSignedUrl(settings.secret_key).url;
}

std::string LookupItem(const AmazonSettings& settings, std::string_view asin,
                       std::string_view response_group, AmazonTime now) {
  AmazonRequest request(settings.host(), settings, now);
  request.Set("Operation", "ItemLookup");
  request.Set("ItemId", PercentEncode(asin));
  request.Set("ResponseGroup", EncodeResponseGroup(response_group));
  return request.BuildSignedUrl(settings.secret_key).url;
}

std::optional<SignedAmazonUrl> SignAmazonUrl(std::string_view url, std::string_view secret_key,
                                             AmazonTime now, std::string& error) {
  if (StartsWithIgnoreCase(url, "http://")) {
    url.remove_prefix(7);
  } else if (StartsWithIgnoreCase(url, "https://")) {
    url.remove_prefix(8);
  } else {
    error = "not an http:// or https:// address";
    return std::nullopt;
  }
  url = url.substr(0, url.find('#'));
  const size_t question = url.find('?');
  if (question == std::string_view::npos) {
    error = "the address has no query to sign";
    return std::nullopt;
  }
  const std::string_view before_query = url.substr(0, question);
  const size_t slash = before_query.find('/');
  const std::string host = ToLowerAscii(before_query.substr(0, slash));
  const std::string path =
      slash == std::string_view::npos ? "/" : std::string(before_query.substr(slash));
  if (host.empty() || host.find('@') != std::string::npos) {
    error = "no usable host name in the address";
    return std::nullopt;
  }

  std::vector<std::pair<std::string, std::string>> parameters;
  bool has_timestamp = false;
  std::string_view query = url.substr(question + 1);
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    const std::string name = PercentEncode(PercentDecode(pair.substr(0, equals)));
    const std::string value = equals == std::string_view::npos
                                  ? std::string()
                                  : PercentEncode(PercentDecode(pair.substr(equals + 1)));
    if (name == "Signature") continue;
    if (name == "Timestamp") has_timestamp = true;
    parameters.emplace_back(name, value);
  }
  if (parameters.empty()) {
    error = "the address has no query to sign";
    return std::nullopt;
  }
  if (!has_timestamp) parameters.emplace_back("Timestamp", FormatAmazonTimestamp(now));
  return SignAmazonQuery(host, path, std::move(parameters), secret_key);
}

}  // namespace dischive
