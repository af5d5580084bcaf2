// A fake product search service on 127.0.0.1: answers GET /onca/xml the way the
// real service does (ItemSearch and ItemLookup documents in its namespace,
// paging, response groups, error documents, 503 when throttled), checks the
// signature of every request against its secret key, and serves cover images
// under /images/.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dischive/amazon.h"
#include "support/loopback_http.h"

namespace dischive::test {

inline constexpr const char* kFakeAmazonAccessKey = "AKIAFAKEACCESSKEY000";
inline constexpr const char* kFakeAmazonSecretKey = "fake/secret+key=0123456789";
inline constexpr const char* kFakeAmazonTag = "dischive-20";

/// One catalogue item of the fake service.
struct FakeAmazonItem {
  std::string asin;
  std::string ean;  ///< bar code found by ItemLookup with IdType EAN or UPC
  std::string artist;
  std::string title;
  std::string label;
  std::string release_date;
  std::string index = "Music";  ///< "Music" or "Classical"
  std::vector<std::vector<std::string>> discs;
  std::string review;
};

/// The items the tests share: two Miles Davis albums (one a two-disc set), a
/// classical recording, and "Zoë & the Ampersands" for encoding checks.
std::vector<FakeAmazonItem> SampleAmazonItems();

class FakeAmazonServer {
 public:
  explicit FakeAmazonServer(std::vector<FakeAmazonItem> items = SampleAmazonItems());

  int port() const { return http_.port(); }
  /// "127.0.0.1:PORT", the value for the setting AmazonSearch.AwsHost.
  std::string host() const;
  /// The settings that reach this server with its keys.
  AmazonSettings settings() const;

  /// Request targets received, in order.
  std::vector<std::string> requests() const;
  /// Requests refused for a bad or missing signature.
  int bad_signatures() const;
  /// Answers every request with HTTP 503 "RequestThrottled" while set.
  void SetThrottled(bool throttled);
  /// Replaces the answer to /onca/xml: status and body.
  void SetOverride(std::optional<std::pair<int, std::string>> answer);

 private:
  void HandleXml(const httplib::Request& request, httplib::Response& response);
  std::string Answer(const std::map<std::string, std::string>& params, int& status) const;

  std::vector<FakeAmazonItem> items_;
  LoopbackHttpServer http_;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  int bad_signatures_ = 0;
  bool throttled_ = false;
  std::optional<std::pair<int, std::string>> override_;
};

}  // namespace dischive::test
