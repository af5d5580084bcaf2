// The request envelope, the multipart form that carries cover images, and the
// reading of response envelopes. The envelope is laid out byte for byte as the
// service expects it, with a plain text builder (not the element writer of the
// collection document): names and values go in as the caller gives them.
#include <libxml/tree.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

#include "dischive/cover.h"
#include "dischive/errors.h"
#include "dischive/random_id.h"
#include "dischive/service.h"
#include "dischive/strings.h"
#include "dischive/xml_response.h"
#include "sync/service_state.h"

namespace dischive {
namespace {

// Replaces the first "%s"/"%d" of a text from the string catalogue by hand, so
// that a translated text with other conversions cannot break formatting.
std::string FillPlaceholder(std::string text, std::string_view marker, std::string_view value) {
  if (const size_t at = text.find(marker); at != std::string::npos) {
    text.replace(at, marker.size(), value);
  }
  return text;
}

bool IsHexText(std::string_view text, size_t length) {
  if (text.size() != length) return false;
  for (const char c : text) {
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
    if (!hex) return false;
  }
  return true;
}

std::string Attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (value == nullptr) return {};
  std::string text(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return text;
}

// An 8-digit hexadecimal time; 0 when the text fails the check.
uint32_t HexTime(std::string_view text) {
  if (!IsHexText(text, 8)) return 0;
  uint32_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return value;
}

// The leading decimal number of a text (white space around it allowed); 0 when
// there is none or it does not fit.
int32_t DecimalCode(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  int32_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  (void)end;
  return ec == std::errc() ? value : 0;
}

}  // namespace

HResult BuildServiceEnvelope(std::string_view command, const std::vector<ServiceParam>& params,
                             const std::filesystem::path& payload_file,
                             const std::vector<CoverAttachment>& covers, std::string& envelope) {
  std::string out = "<Envelope>\n <Request>\n  <Command>";
  out.append(command).append("</Command>\n");
  if (!params.empty()) {
    out += "  <Params>\n";
    for (const ServiceParam& p : params) {
      out.append("   <Param><Name>").append(p.name).append("</Name><Value>");
      out.append(p.value).append("</Value></Param>\n");
    }
    out += "  </Params>\n";
  }
  if (command == "put") {
    std::ifstream in(payload_file, std::ios::binary);
    if (!in) return HResultFromErrno(errno != 0 ? errno : ENOENT);
    std::string document((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return HResultFromErrno(EIO);
    // The document goes in without its XML declaration: everything after the
    // first ">", from the first character that is not white space.
    size_t start = document.find('>');
    start = start == std::string::npos ? document.size() : start + 1;
    while (start < document.size() && (document[start] == ' ' || document[start] == '\t' ||
                                       document[start] == '\r' || document[start] == '\n')) {
      ++start;
    }
    out += "  <Payload>\n";
    out.append(document, start, std::string::npos);
    out += "</Payload>\n";
  } else if (command == "cover") {
    out += "  <Covers>\n";
    for (size_t k = 0; k < covers.size(); ++k) {
      const std::string hash = CoverHash(covers[k].bytes);
      if (hash.empty()) continue;
      out.append("   <Cover Attachment=\"file").append(std::to_string(k + 1));
      out.append("\" Hash=\"").append(hash).append("\" AlbumID=\"");
      out.append(covers[k].album_id).append("\" />\n");
    }
    out += "</Covers>\n";
  }
  out += " </Request>\n</Envelope>\n";
  envelope = std::move(out);
  return kOk;
}

MultipartForm BuildMultipartForm(std::string_view envelope, std::string_view command,
                                 const std::vector<CoverAttachment>& covers,
                                 const std::function<std::string()>& draw) {
  MultipartForm form;
  // Only the envelope is searched: a boundary inside image bytes is harmless
  // in practice and searching megabytes of images for it is not worth it.
  do {
    form.boundary = draw ? draw() : NewRandomIdentifier();
  } while (form.boundary.empty() || envelope.find(form.boundary) != std::string_view::npos);

  const std::string separator = "\n--" + form.boundary;
  std::string head = "--" + form.boundary +
                     "\ncontent-disposition: form-data; name=\"req\"; filename=\"req.xml\"\n"
                     "Content-Type: text/xml; charset=UTF-8\n\n";
  form.body.append(head).append(envelope).append(separator);
  form.log.append(head).append(envelope).append(separator);
  if (command == "cover") {
    const std::string binary_note = LoadHostString(strings::kBinaryBody);
    for (size_t k = 0; k < covers.size(); ++k) {
      const std::string n = std::to_string(k + 1);
      const std::string part = "\ncontent-disposition: form-data; name=\"file" + n +
                               "\"; filename=\"file" + n +
                               ".jpg\"\nContent-Type: image/jpeg\n"
                               "Content-Transfer-Encoding: binary\n\n";
      form.body.append(part).append(covers[k].bytes).append(separator);
      form.log.append(part).append(binary_note).append(separator);
    }
  }
  form.body += "--";
  form.log += "--";
  return form;
}

HResult ParseServiceResponse(std::string_view body, std::string_view command,
                             std::vector<ServiceParam>* params, std::vector<AlbumState>* albums) {
  // The service never sends a document type; one in an answer can only be an
  // attempt to declare entities (nested or external), so it is refused before
  // any parsing.
  if (body.size() > kMaxServiceResponse || body.find("<!DOCTYPE") != std::string_view::npos ||
      body.find("<!ENTITY") != std::string_view::npos) {
    return kFail;
  }
  XmlResponseReader reader;
  XmlDocument document;
  const HResult loaded = reader.LoadXmlResponse(body, document);
  if (loaded != kOk) return loaded;

  if (xmlNode* error = reader.SelectSingleNode(document.node(), "Envelope/Error")) {
    std::string description;
    reader.SelectNodeText(error, "Description", description);
    if (!description.empty()) {
      detail::SetServiceErrorMessage(description);
    } else {
      std::string code_text;
      reader.SelectNodeText(error, "Code", code_text);
      if (const int32_t code = DecimalCode(code_text); code != 0) {
        detail::SetServiceErrorMessage(FillPlaceholder(LoadHostString(strings::kServiceErrorCode),
                                                       "%d", std::to_string(code)));
      }
    }
    return kFreedbServiceError;
  }

  if (params != nullptr) {
    for (xmlNode* param : reader.SelectNodes(document.node(), "Envelope/Response/Params/Param")) {
      std::string name, value;
      reader.SelectNodeText(param, "Name", name);
      reader.SelectNodeText(param, "Value", value);
      if (!name.empty() && !value.empty()) params->push_back({std::move(name), std::move(value)});
    }
  }
  if (command == "list" && albums != nullptr) {
    for (xmlNode* node : reader.SelectNodes(
             document.node(), "Envelope/Response/Payload/Collection/Albums/All/Album")) {
      AlbumState state;
      state.id = Attribute(node, "ID");
      if (!IsHexText(state.id, 16)) continue;
      state.modified = HexTime(Attribute(node, "Modified"));
      state.played = HexTime(Attribute(node, "Played"));
      state.rated = HexTime(Attribute(node, "Rated"));
      state.cover_hash = Attribute(node, "CoverHash");
      if (!IsHexText(state.cover_hash, 32)) state.cover_hash.clear();
      albums->push_back(std::move(state));
    }
  }
  return kOk;
}

}  // namespace dischive
