// Feeds arbitrary bytes as a server's XML answer to the XML response reader
// (which refuses document types, entities and oversized bodies), then selects
// and gathers text from whatever it accepted.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/xml_response.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  for (uint32_t code_page : {0u, 1252u}) {
    dischive::XmlResponseReader reader;
    reader.code_page = code_page;
    dischive::XmlDocument document;
    if (reader.LoadXmlResponse(body, document) != 0) continue;
    std::string text;
    reader.SelectNodeText(document.node(), "//*[1]", text);
    for (_xmlNode* node : reader.SelectNodes(document.node(), "//*"))
      (void)reader.NodeText(node);
  }
  return 0;
}
