// Reading the service's ItemSearch and ItemLookup answers into albums, and its
// error documents into a code and a message.
#include <libxml/tree.h>

#include <cstdint>
#include <string>

#include "dischive/amazon.h"
#include "dischive/xml_response.h"
#include "util/parse.h"

namespace dischive {
namespace {

class AmazonReader : public XmlResponseReader {
 public:
  std::string GetSelectionNamespaces() const override {
    return "xmlns:z='" + std::string(kAmazonNamespace) + "'";
  }

  std::string Text(_xmlNode* node, std::string_view xpath) const {
    std::string text;
    SelectNodeText(node, xpath, text);
    return text;
  }
};

// A count from the answer; 0 when absent or not a plain number.
int Count(std::string_view text) {
  return static_cast<int>(ParseDecimal32(text, INT32_MAX).value_or(0));
}

AmazonAlbum ReadAlbum(const AmazonReader& reader, _xmlNode* item) {
  AmazonAlbum album;
  album.asin = reader.Text(item, "z:ASIN");
  album.detail_page = reader.Text(item, "z:DetailPageURL");
  // Several artists are joined; a classical album may name only creators.
  for (_xmlNode* artist : reader.SelectNodes(item, "z:ItemAttributes/z:Artist")) {
    if (!album.artist.empty()) album.artist += ", ";
    album.artist += reader.NodeText(artist);
  }
  if (album.artist.empty()) album.artist = reader.Text(item, "z:ItemAttributes/z:Creator");
  album.title = reader.Text(item, "z:ItemAttributes/z:Title");
  album.label = reader.Text(item, "z:ItemAttributes/z:Label");
  if (album.label.empty()) album.label = reader.Text(item, "z:ItemAttributes/z:Publisher");
  album.release_date = reader.Text(item, "z:ItemAttributes/z:ReleaseDate");
  album.discs = Count(reader.Text(item, "z:ItemAttributes/z:NumberOfDiscs"));
  album.small_image = reader.Text(item, "z:SmallImage/z:URL");
  album.medium_image = reader.Text(item, "z:MediumImage/z:URL");
  album.large_image = reader.Text(item, "z:LargeImage/z:URL");
  album.editorial_review = reader.Text(item, "z:EditorialReviews/z:EditorialReview/z:Content");

  int next_number = 1;
  for (_xmlNode* disc_node : reader.SelectNodes(item, "z:Tracks/z:Disc")) {
    AmazonDisc disc;
    disc.number = Count(reader.Text(disc_node, "@Number"));
    if (disc.number == 0) disc.number = next_number;
    next_number = disc.number + 1;
    for (_xmlNode* track : reader.SelectNodes(disc_node, "z:Track")) {
      disc.tracks.push_back(reader.NodeText(track));
    }
    album.tracks.push_back(std::move(disc));
  }
  return album;
}

}  // namespace

const std::string& AmazonAlbum::LargestImage() const {
  if (!large_image.empty()) return large_image;
  if (!medium_image.empty()) return medium_image;
  return small_image;
}

HResult ParseAmazonAnswer(std::string_view body, AmazonAnswer& answer, size_t max_bytes) {
  answer = AmazonAnswer();
  AmazonReader reader;
  reader.max_bytes = max_bytes;
  XmlDocument document;
  if (reader.LoadXmlResponse(body, document) != kOk) {
    answer.error_message = "unusable answer: " + reader.last_error();
    return kFreedbServiceError;
  }

  // The service's complaints: about the request inside a normal answer, or a
  // whole error document (whose namespace differs from that of the answers).
  _xmlNode* error =
      reader.SelectSingleNode(document.node(), "/*/z:Items/z:Request/z:Errors/z:Error");
  if (error == nullptr) {
    error = reader.SelectSingleNode(
        document.node(), "/*[contains(local-name(), 'ErrorResponse')]/*[local-name() = 'Error']");
  }
  if (error != nullptr) {
    reader.SelectNodeText(error, "*[local-name() = 'Code']", answer.error_code);
    reader.SelectNodeText(error, "*[local-name() = 'Message']", answer.error_message);
  }

  _xmlNode* items = reader.SelectSingleNode(document.node(), "/*/z:Items");
  if (items != nullptr) {
    answer.total_results = Count(reader.Text(items, "z:TotalResults"));
    answer.total_pages = Count(reader.Text(items, "z:TotalPages"));
    for (_xmlNode* item : reader.SelectNodes(items, "z:Item")) {
      AmazonAlbum album = ReadAlbum(reader, item);
      if (!album.asin.empty()) answer.albums.push_back(std::move(album));
    }
  }
  if (!answer.albums.empty()) return kOk;
  if (answer.error_code == "AWS.ECommerceService.NoExactMatches" ||
      (items != nullptr && error == nullptr)) {
    if (answer.error_message.empty()) answer.error_message = "no matching items";
    return kNoFreedbMatch;
  }
  if (error == nullptr) {
    const xmlNode* root = xmlDocGetRootElement(document.get());
    std::string what = root != nullptr ? reinterpret_cast<const char*>(root->name) : "nothing";
    if (root != nullptr && root->ns != nullptr && root->ns->href != nullptr) {
      what += " in namespace ";
      what += reinterpret_cast<const char*>(root->ns->href);
    }
    answer.error_message = "not an answer of the product search service (" + what + ")";
  } else if (answer.error_message.empty()) {
    answer.error_message =
        answer.error_code.empty() ? "the service reported an error" : answer.error_code;
  }
  return kFreedbServiceError;
}

}  // namespace dischive
