#include "support/fake_amazon.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <turbojpeg.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "dischive/codec.h"
#include "dischive/text.h"

namespace dischive::test {
namespace {

constexpr int kPageSize = 10;
constexpr const char* kErrorNamespace = "http://ecs.amazonaws.com/doc/2011-08-01/";

std::string Escape(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool ContainsIgnoreCase(std::string_view text, std::string_view part) {
  return ToLowerAscii(text).find(ToLowerAscii(part)) != std::string::npos;
}

// The parameters of a raw query, names and values kept as sent.
std::vector<std::pair<std::string, std::string>> RawPairs(std::string_view query) {
  std::vector<std::pair<std::string, std::string>> pairs;
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    pairs.emplace_back(
        std::string(pair.substr(0, equals)),
        equals == std::string_view::npos ? "" : std::string(pair.substr(equals + 1)));
  }
  return pairs;
}

std::string ErrorDocument(const std::string& operation, const std::string& code,
                          const std::string& message) {
  return "<?xml version=\"1.0\"?>\n<" + operation + "ErrorResponse xmlns=\"" + kErrorNamespace +
         "\"><Error><Code>" + code + "</Code><Message>" + Escape(message) +
         "</Message></Error><RequestId>5d3b2b5e-0000-4000-8000-000000000000</RequestId></" +
         operation + "ErrorResponse>";
}

// "2009-01-01T12:00:00Z" as seconds since 1970, or nullopt.
std::optional<std::time_t> ParseTimestamp(const std::string& text) {
  std::tm tm{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
  if (end == nullptr || std::string_view(end).substr(0, 1) != "Z") return std::nullopt;
  return timegm(&tm);
}

std::string Jpeg(int side) {
  std::vector<unsigned char> pixels(static_cast<size_t>(side) * side * 3);
  for (size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = static_cast<unsigned char>(i * 7);
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  std::string out;
  if (tjCompress2(handle, pixels.data(), side, 0, side, TJPF_RGB, &jpeg, &size, TJSAMP_420, 85,
                  0) == 0) {
    out.assign(reinterpret_cast<const char*>(jpeg), size);
  }
  tjFree(jpeg);
  tjDestroy(handle);
  return out;
}

// The signature the service expects, computed here without the library's code:
// parameters sorted by bytes, the canonical text, HMAC-SHA256, Base64.
std::string ExpectedSignature(const std::string& host,
                              std::vector<std::pair<std::string, std::string>> pairs) {
  std::sort(pairs.begin(), pairs.end());
  std::string text = "GET\n" + host + "\n/onca/xml\n";
  for (size_t i = 0; i < pairs.size(); ++i) {
    text += (i == 0 ? "" : "&") + pairs[i].first + "=" + pairs[i].second;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const std::string key = kFakeAmazonSecretKey;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &length);
  unsigned char base64[4 * EVP_MAX_MD_SIZE];
  const int written = EVP_EncodeBlock(base64, digest, static_cast<int>(length));
  return std::string(reinterpret_cast<const char*>(base64), static_cast<size_t>(written));
}

}  // namespace

std::vector<FakeAmazonItem> SampleAmazonItems() {
  return {
      {"B000002ADT",
       "0074646493524",
       "Miles Davis",
       "Kind of Blue",
       "Columbia",
       "1997-03-25",
       "Music",
       {{"So What", "Freddie Freeloader", "Blue in Green"}},
       "The best-selling jazz album of all time."},
      {"B00005NVR1",
       "696998563124",
       "Miles Davis",
       "Bitches Brew",
       "Columbia",
       "1999-08-31",
       "Music",
       {{"Pharaoh's Dance", "Bitches Brew"}, {"Spanish Key", "John McLaughlin"}},
       ""},
      {"B000001GXD",
       "0028944729220",
       "Glenn Gould",
       "Bach: Goldberg Variations",
       "Sony Classical",
       "1992-09-01",
       "Classical",
       {{"Aria", "Variatio 1"}},
       ""},
      {"B0000ZOE01",
       "",
       "Zoë & the Ampersands",
       "<Tags> & \"Quotes\"",
       "Indie",
       "2003",
       "Music",
       {{"Café"}},
       ""},
  };
}

FakeAmazonServer::FakeAmazonServer(std::vector<FakeAmazonItem> items) : items_(std::move(items)) {
  http_.server().Get("/onca/xml",
                     [this](const httplib::Request& request, httplib::Response& response) {
                       HandleXml(request, response);
                     });
  http_.server().Get(R"(/images/I/(\w+)\._SL(\d+)_\.jpg)",
                     [](const httplib::Request& request, httplib::Response& response) {
                       const int side = std::clamp(std::stoi(request.matches[2]), 8, 500);
                       response.set_content(Jpeg(side), "image/jpeg");
                     });
  http_.Start();
}

std::string FakeAmazonServer::host() const {
  return "127.0.0.1:" + std::to_string(port());
}

AmazonSettings FakeAmazonServer::settings() const {
  AmazonSettings settings;
  settings.access_key_id = kFakeAmazonAccessKey;
  settings.secret_key = kFakeAmazonSecretKey;
  settings.associate_tag = kFakeAmazonTag;
  settings.host_override = host();
  return settings;
}

std::vector<std::string> FakeAmazonServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

int FakeAmazonServer::bad_signatures() const {
  std::lock_guard lock(mutex_);
  return bad_signatures_;
}

void FakeAmazonServer::SetThrottled(bool throttled) {
  std::lock_guard lock(mutex_);
  throttled_ = throttled;
}

void FakeAmazonServer::SetOverride(std::optional<std::pair<int, std::string>> answer) {
  std::lock_guard lock(mutex_);
  override_ = std::move(answer);
}

void FakeAmazonServer::HandleXml(const httplib::Request& request, httplib::Response& response) {
  std::optional<std::pair<int, std::string>> override_answer;
  bool throttled = false;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request.target);
    override_answer = override_;
    throttled = throttled_;
  }
  const size_t question = request.target.find('?');
  const std::string_view query = question == std::string::npos
                                     ? std::string_view()
                                     : std::string_view(request.target).substr(question + 1);

  // The service's signature check: the parameters decoded, encoded again by
  // its own rules, sorted, and signed with the Host header as sent.
  std::vector<std::pair<std::string, std::string>> canonical;
  std::map<std::string, std::string> params;
  std::optional<std::string> signature;
  for (const auto& [name, value] : RawPairs(query)) {
    const std::string decoded_name = PercentDecode(name);
    const std::string decoded_value = PercentDecode(value);
    if (decoded_name == "Signature") {
      signature = decoded_value;
      continue;
    }
    params[decoded_name] = decoded_value;
    canonical.emplace_back(PercentEncode(decoded_name), PercentEncode(decoded_value));
  }
  const std::string operation = params.count("Operation") != 0 ? params["Operation"] : "ItemSearch";
  const auto refuse = [&](int status, const std::string& code, const std::string& message) {
    response.status = status;
    response.set_content(ErrorDocument(operation, code, message), "text/xml;charset=UTF-8");
  };

  const std::string host = ToLowerAscii(request.get_header_value("Host"));
  if (!signature || *signature != ExpectedSignature(host, canonical)) {
    {
      std::lock_guard lock(mutex_);
      ++bad_signatures_;
    }
    if (!signature) {
      refuse(400, "MissingParameter", "The request must contain the parameter Signature.");
    } else {
      refuse(403, "SignatureDoesNotMatch",
             "The request signature we calculated does not match the signature you provided. "
             "Check your AWS Secret Access Key and signing method. Consult the service "
             "documentation for details.");
    }
    return;
  }
  if (params["AWSAccessKeyId"] != kFakeAmazonAccessKey) {
    refuse(403, "InvalidClientTokenId",
           "The AWS Access Key Id you provided does not exist in our records.");
    return;
  }
  const std::optional<std::time_t> stamp = ParseTimestamp(params["Timestamp"]);
  const std::time_t now = std::time(nullptr);
  if (!stamp || *stamp < now - 15 * 60 || *stamp > now + 15 * 60) {
    refuse(400, "RequestExpired",
           "Request has expired. Timestamp date is " + params["Timestamp"] + ".");
    return;
  }
  if (throttled) {
    refuse(503, "RequestThrottled",
           "AWS Access Key ID: " + params["AWSAccessKeyId"] +
               ". You are submitting requests too quickly. Please retry your requests at a "
               "slower rate.");
    return;
  }
  if (override_answer) {
    response.status = override_answer->first;
    response.set_content(override_answer->second, "text/xml;charset=UTF-8");
    return;
  }
  int status = 200;
  const std::string body = Answer(params, status);
  response.status = status;
  response.set_content(body, "text/xml;charset=UTF-8");
}

std::string FakeAmazonServer::Answer(const std::map<std::string, std::string>& params,
                                     int& status) const {
  const auto get = [&params](const char* name) {
    const auto it = params.find(name);
    return it == params.end() ? std::string() : it->second;
  };
  const std::string operation = get("Operation");
  if (operation != "ItemSearch" && operation != "ItemLookup") {
    status = 400;
    return ErrorDocument("ItemSearch", "AWS.InvalidOperationParameter",
                         "The Operation parameter is invalid. Please modify the Operation "
                         "parameter and retry. Valid values for the Operation parameter include "
                         "ItemSearch, ItemLookup.");
  }
  std::string groups = get("ResponseGroup");
  if (groups.empty()) groups = "Small";
  const auto wants = [&groups](std::string_view group) {
    return ("," + groups + ",").find("," + std::string(group) + ",") != std::string::npos;
  };
  const std::string index = get("SearchIndex");
  std::vector<std::string> errors;  // code, message pairs flattened
  std::vector<const FakeAmazonItem*> found;

  if (operation == "ItemSearch") {
    if (index.empty()) {
      errors = {"AWS.MissingParameters",
                "Your request is missing required parameters. Required parameters include "
                "SearchIndex."};
    } else {
      for (const FakeAmazonItem& item : items_) {
        if (item.index != index) continue;
        bool match = true;
        if (params.count("Artist") != 0) match = ContainsIgnoreCase(item.artist, get("Artist"));
        if (params.count("Keywords") != 0) {
          const std::string all = item.artist + " " + item.title;
          std::string_view words = params.at("Keywords");
          while (match && !words.empty()) {
            const size_t blank = words.find(' ');
            const std::string_view word = words.substr(0, blank);
            words = blank == std::string_view::npos ? std::string_view() : words.substr(blank + 1);
            if (!word.empty() && !ContainsIgnoreCase(all, word)) match = false;
          }
        }
        if (match) found.push_back(&item);
      }
    }
  } else {
    const std::string id_type = get("IdType").empty() ? "ASIN" : get("IdType");
    if (id_type != "ASIN" && index.empty()) {
      errors = {"AWS.MissingParameterValueCombination",
                "Your request is missing the SearchIndex parameter, which is required when "
                "IdType is " +
                    id_type + "."};
    } else if (id_type == "ASIN" && !index.empty()) {
      errors = {"AWS.RestrictedParameterValueCombination",
                "Your request contained a restricted parameter combination. When IdType equals "
                "ASIN, SearchIndex cannot be present."};
    } else {
      for (const FakeAmazonItem& item : items_) {
        const std::string& key = id_type == "ASIN" ? item.asin : item.ean;
        const bool same_index = id_type == "ASIN" || item.index == index;
        if (!key.empty() && same_index &&
            (key == get("ItemId") || (id_type == "UPC" && "0" + get("ItemId") == key))) {
          found.push_back(&item);
        }
      }
      if (found.empty()) {
        errors = {"AWS.InvalidParameterValue",
                  get("ItemId") +
                      " is not a valid value for ItemId. Please change this value and retry "
                      "your request."};
      }
    }
  }

  int page = 1;
  if (operation == "ItemSearch" && params.count("ItemPage") != 0) {
    page = std::atoi(get("ItemPage").c_str());
    if (page < 1 || page > 10) {
      errors = {"AWS.ParameterOutOfRange",
                "The value you specified for ItemPage is invalid. Valid values must be between "
                "1 and 10."};
      found.clear();
    }
  }
  const size_t total = found.size();
  const size_t first = std::min(total, static_cast<size_t>(page - 1) * kPageSize);
  const size_t last = std::min(total, first + kPageSize);
  if (errors.empty() && first == last) {
    errors = {"AWS.ECommerceService.NoExactMatches",
              "We did not find any matches for your request."};
  }

  std::string xml = "<?xml version=\"1.0\" ?>\n<" + operation + "Response xmlns=\"" +
                    std::string(kAmazonNamespace) +
                    "\"><OperationRequest><HTTPHeaders><Header Name=\"UserAgent\" "
                    "Value=\"client\"></Header></HTTPHeaders><RequestId>"
                    "1f6a2b3c-0000-4000-8000-000000000000</RequestId><Arguments>";
  for (const auto& [name, value] : params) {
    xml += "<Argument Name=\"" + Escape(name) + "\" Value=\"" + Escape(value) + "\"></Argument>";
  }
  xml += "</Arguments><RequestProcessingTime>0.0123</RequestProcessingTime></OperationRequest>";
  xml += "<Items><Request><IsValid>True</IsValid><" + operation + "Request>";
  for (const char* name : {"Artist", "Keywords", "ItemId", "IdType", "SearchIndex"}) {
    if (params.count(name) != 0)
      xml += "<" + std::string(name) + ">" + Escape(get(name)) + "</" + name + ">";
  }
  xml += "<ResponseGroup>" + Escape(groups) + "</ResponseGroup></" + operation + "Request>";
  if (!errors.empty()) {
    xml += "<Errors><Error><Code>" + errors[0] + "</Code><Message>" + Escape(errors[1]) +
           "</Message></Error></Errors>";
  }
  xml += "</Request>";
  if (operation == "ItemSearch") {
    xml += "<TotalResults>" + std::to_string(total) + "</TotalResults><TotalPages>" +
           std::to_string((total + kPageSize - 1) / kPageSize) + "</TotalPages>";
  }
  const std::string image_base = "http://" + host() + "/images/I/";
  for (size_t i = first; i < last; ++i) {
    const FakeAmazonItem& item = *found[i];
    xml += "<Item><ASIN>" + item.asin + "</ASIN><DetailPageURL>http://www.amazon.com/dp/" +
           item.asin + "%3FSubscriptionId%3D" + kFakeAmazonAccessKey + "</DetailPageURL>";
    if (wants("Images")) {
      for (const auto& [element, side] :
           {std::pair{"SmallImage", 75}, std::pair{"MediumImage", 160},
            std::pair{"LargeImage", 500}}) {
        xml += "<" + std::string(element) + "><URL>" + image_base + item.asin + "._SL" +
               std::to_string(side) + "_.jpg</URL><Height Units=\"pixels\">" +
               std::to_string(side) + "</Height><Width Units=\"pixels\">" + std::to_string(side) +
               "</Width></" + element + ">";
      }
    }
    if (wants("ItemAttributes") || wants("Small")) {
      xml += "<ItemAttributes><Artist>" + Escape(item.artist) +
             "</Artist><Binding>Audio CD</Binding><Creator Role=\"Performer\">" +
             Escape(item.artist) + "</Creator><Format>Original recording</Format>";
      if (wants("ItemAttributes")) {
        xml += "<Label>" + Escape(item.label) + "</Label><Manufacturer>" + Escape(item.label) +
               "</Manufacturer><NumberOfDiscs>" + std::to_string(item.discs.size()) +
               "</NumberOfDiscs><ProductGroup>Music</ProductGroup><Publisher>" +
               Escape(item.label) + "</Publisher><ReleaseDate>" + item.release_date +
               "</ReleaseDate>";
        if (!item.ean.empty()) xml += "<EAN>" + item.ean + "</EAN>";
      }
      xml += "<Title>" + Escape(item.title) + "</Title></ItemAttributes>";
    }
    if (wants("EditorialReview") && !item.review.empty()) {
      xml += "<EditorialReviews><EditorialReview><Source>Product Description</Source><Content>" +
             Escape(item.review) +
             "</Content><IsLinkSuppressed>0</IsLinkSuppressed></EditorialReview>"
             "</EditorialReviews>";
    }
    if (wants("Tracks")) {
      xml += "<Tracks>";
      for (size_t d = 0; d < item.discs.size(); ++d) {
        xml += "<Disc Number=\"" + std::to_string(d + 1) + "\">";
        for (size_t t = 0; t < item.discs[d].size(); ++t) {
          xml += "<Track Number=\"" + std::to_string(t + 1) + "\">" + Escape(item.discs[d][t]) +
                 "</Track>";
        }
        xml += "</Disc>";
      }
      xml += "</Tracks>";
    }
    xml += "</Item>";
  }
  xml += "</Items></" + operation + "Response>";
  return xml;
}

}  // namespace dischive::test
