// The Amazon exports of the shared library, loaded as a host loads them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "dhvapi.h"

namespace dischive {
namespace {

TEST(AmazonApiTest, ExportsBuildSignedUrls) {
  void* library = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();
  const auto get = [library](const char* name) { return ::dlsym(library, name); };
  auto* sign = reinterpret_cast<decltype(&::BuildSignedUrl)>(get("BuildSignedUrl"));
  auto* by_artist =
      reinterpret_cast<decltype(&::SearchAlbumsByArtist)>(get("SearchAlbumsByArtist"));
  auto* by_keywords =
      reinterpret_cast<decltype(&::SearchAlbumsByKeywords)>(get("SearchAlbumsByKeywords"));
  auto* in_index = reinterpret_cast<decltype(&::LookupItemInIndex)>(get("LookupItemInIndex"));
  auto* lookup = reinterpret_cast<decltype(&::LookupItem)>(get("LookupItem"));
  ASSERT_TRUE(sign && by_artist && by_keywords && in_index && lookup);

  const auto take = [](char* text) {
    std::string out = text != nullptr ? text : "(null)";
    std::free(text);
    return out;
  };
  // The published ItemSearch example, its pairs given in any order.
  EXPECT_EQ(take(sign("ecs.amazonaws.co.uk",
                      "Service=AWSECommerceService&AWSAccessKeyId=00000000000000000000&Operation="
                      "ItemSearch&Actor=Johnny%20Depp&ResponseGroup=ItemAttributes%2COffers%"
                      "2CImages%2CReviews%2CVariations&Version=2009-01-01&SearchIndex=DVD&Sort="
                      "salesrank&AssociateTag=mytag-20&Timestamp=2009-01-01T12%3A00%3A00Z",
                      "1234567890")),
            "http://ecs.amazonaws.co.uk/onca/xml?AWSAccessKeyId=00000000000000000000&Actor="
            "Johnny%20Depp&AssociateTag=mytag-20&Operation=ItemSearch&ResponseGroup="
            "ItemAttributes%2COffers%2CImages%2CReviews%2CVariations&SearchIndex=DVD&Service="
            "AWSECommerceService&Sort=salesrank&Timestamp=2009-01-01T12%3A00%3A00Z&Version="
            "2009-01-01&Signature=TuM6E5L9u%2FuNqOX09ET03BXVmHLVFfJIna5cxXuHxiU%3D");

  // The operations: each its own parameters, encoded, sorted and signed.
  const struct {
    std::string url;
    const char* part;
  } kCases[] = {
      {take(by_artist("AC/DC", 0, 3, nullptr)), "&Artist=AC%2FDC&AssociateTag="},
      {take(by_artist("AC/DC", 0, 3, nullptr)),
       "&ItemPage=3&Operation=ItemSearch&ResponseGroup="
       "ItemAttributes%2CTracks&SearchIndex=Music&Service="},
      {take(by_keywords("bach cello", 1, 1, "ItemAttributes,Images")),
       "&ItemPage=1&Keywords=bach%20cello&Operation=ItemSearch&ResponseGroup=ItemAttributes%"
       "2CImages&SearchIndex=Classical&Service="},
      {take(in_index("696998563124", 0, nullptr)),
       "&IdType=UPC&ItemId=696998563124&Operation=ItemLookup&ResponseGroup=ItemAttributes%"
       "2CTracks&SearchIndex=Music&Service="},
      {take(lookup("B000002ADT", "Tracks")),
       "&ItemId=B000002ADT&Operation=ItemLookup&ResponseGroup=Tracks&Service="},
  };
  for (const auto& c : kCases) {
    EXPECT_TRUE(c.url.starts_with("http://")) << c.url;
    EXPECT_NE(c.url.find("/onca/xml?AWSAccessKeyId="), std::string::npos) << c.url;
    EXPECT_NE(c.url.find(c.part), std::string::npos) << c.url;
    EXPECT_NE(c.url.find("&Version=2011-08-01&Signature="), std::string::npos) << c.url;
  }
  EXPECT_EQ(by_artist(nullptr, 0, 1, nullptr), nullptr);
  EXPECT_EQ(lookup(nullptr, nullptr), nullptr);
  EXPECT_EQ(sign("h", nullptr, "k"), nullptr);
  ::dlclose(library);
}

}  // namespace
}  // namespace dischive
