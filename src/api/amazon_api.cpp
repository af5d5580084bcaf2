// C entry points: signed request URLs of the Amazon product search.
#include <chrono>
#include <string>
#include <string_view>

#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/amazon.h"
#include "dischive/settings.h"

namespace {

dischive::AmazonSettings Settings() {
  return dischive::LoadAmazonSettings(*dischive::GlobalSettings());
}

std::string_view Groups(const char* response_group) {
  return response_group != nullptr ? std::string_view(response_group)
                                   : std::string_view("ItemAttributes,Tracks");
}

char* Hand(const std::string& url) {
  return dischive::api::DupString(url);
}

}  // namespace

extern "C" char* LookupItemInIndex(const char* barcode, int classical, const char* response_group) {
  if (barcode == nullptr) return nullptr;
  return Hand(dischive::LookupItemInIndex(Settings(), barcode, classical != 0,
                                          Groups(response_group),
                                          std::chrono::system_clock::now()));
}

extern "C" char* SearchAlbumsByArtist(const char* artist, int classical, int page,
                                      const char* response_group) {
  if (artist == nullptr) return nullptr;
  return Hand(dischive::SearchAlbumsByArtist(Settings(), artist, classical != 0, page,
                                             Groups(response_group),
                                             std::chrono::system_clock::now()));
}

extern "C" char* SearchAlbumsByKeywords(const char* keywords, int classical, int page,
                                        const char* response_group) {
  if (keywords == nullptr) return nullptr;
  return Hand(dischive::SearchAlbumsByKeywords(Settings(), keywords, classical != 0, page,
                                               Groups(response_group),
                                               std::chrono::system_clock::now()));
}

extern "C" char* LookupItem(const char* asin, const char* response_group) {
  if (asin == nullptr) return nullptr;
  return Hand(dischive::LookupItem(Settings(), asin, Groups(response_group),
                                   std::chrono::system_clock::now()));
}

extern "C" char* BuildSignedUrl(const char* host, const char* query, const char* secret_key) {
  if (host == nullptr || query == nullptr || secret_key == nullptr) return nullptr;
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string_view rest = query;
  while (!rest.empty()) {
    const size_t amp = rest.find('&');
    const std::string_view pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    pairs.emplace_back(
        std::string(pair.substr(0, equals)),
        equals == std::string_view::npos ? std::string() : std::string(pair.substr(equals + 1)));
  }
  return Hand(dischive::SignAmazonQuery(host, "/onca/xml", std::move(pairs), secret_key).url);
}
