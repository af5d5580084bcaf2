// XML responses on libxml2. The parser runs without network access, without
// entity substitution and without loading DTDs; a process-wide entity loader
// refuses every external resource while a response is parsed on this thread,
// so a hostile body cannot make the library read a local file. No service
// answer needs a document type declaration, so a body that has one is refused
// the moment the parser meets it: entity declarations (nested, wide or
// external) never get as far as being parsed. Bodies above a size limit are
// refused before parsing.
#include "dischive/xml_response.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <climits>
#include <mutex>
#include <string>
#include <utility>

#include "dischive/settings.h"
#include "dischive/text.h"

namespace dischive {
namespace {

thread_local bool tls_parsing_response = false;
xmlExternalEntityLoader previous_loader = nullptr;

xmlParserInputPtr RefusingLoader(const char* url, const char* id, xmlParserCtxtPtr ctxt) {
  if (tls_parsing_response) return nullptr;
  return previous_loader != nullptr ? previous_loader(url, id, ctxt) : nullptr;
}

void InstallLoader() {
  static std::once_flag once;
  std::call_once(once, [] {
    xmlInitParser();
    previous_loader = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(&RefusingLoader);
  });
}

class ParsingScope {
 public:
  ParsingScope() { tls_parsing_response = true; }
  ~ParsingScope() { tls_parsing_response = false; }
  ParsingScope(const ParsingScope&) = delete;
  ParsingScope& operator=(const ParsingScope&) = delete;
};

void IgnoreXPathError(void*, xmlErrorPtr) {}

// Marks the parse as refused and stops it; called by the parser when it meets
// "<!DOCTYPE" (before the internal subset is read) or an entity declaration.
void Refuse(void* user_data) {
  auto* ctxt = static_cast<xmlParserCtxtPtr>(user_data);
  ctxt->_private = ctxt;  // any non-null value: refused
  xmlStopParser(ctxt);
}

void RefuseDoctype(void* user_data, const xmlChar*, const xmlChar*, const xmlChar*) {
  Refuse(user_data);
}

void RefuseEntity(void* user_data, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
  Refuse(user_data);
}

bool IsXmlBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Parses "xmlns:p='uri' xmlns:q=\"uri\"" into (prefix, uri) pairs; false when
// the text does not have that form.
bool ParseNamespaces(std::string_view text, std::vector<std::pair<std::string, std::string>>& out) {
  size_t pos = 0;
  const auto skip_blanks = [&] {
    while (pos < text.size() && IsXmlBlank(text[pos]))
      ++pos;
  };
  for (skip_blanks(); pos < text.size(); skip_blanks()) {
    static constexpr std::string_view kXmlns = "xmlns:";
    if (text.substr(pos, kXmlns.size()) != kXmlns) return false;
    pos += kXmlns.size();
    const size_t equals = text.find('=', pos);
    if (equals == std::string_view::npos || equals == pos) return false;
    std::string prefix(text.substr(pos, equals - pos));
    pos = equals + 1;
    if (pos >= text.size() || (text[pos] != '\'' && text[pos] != '"')) return false;
    const char quote = text[pos++];
    const size_t end = text.find(quote, pos);
    if (end == std::string_view::npos) return false;
    for (const char c : prefix) {
      if (IsXmlBlank(c) || c == ':') return false;
    }
    out.emplace_back(std::move(prefix), std::string(text.substr(pos, end - pos)));
    pos = end + 1;
  }
  return true;
}

// Appends the text below a node. Entity references are followed (their
// content was parsed once, not substituted) with a shared budget and a depth
// limit, so nested entities cannot multiply into gigabytes.
void GatherText(const xmlNode* node, std::string& out, size_t& entity_budget, int entity_depth) {
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    switch (child->type) {
      case XML_TEXT_NODE:
      case XML_CDATA_SECTION_NODE: {
        if (child->content == nullptr) break;
        std::string_view piece(reinterpret_cast<const char*>(child->content));
        if (entity_depth > 0) {
          if (piece.size() > entity_budget) piece = piece.substr(0, entity_budget);
          entity_budget -= piece.size();
        }
        out.append(piece);
        break;
      }
      case XML_ENTITY_REF_NODE: {
        const auto* entity = reinterpret_cast<const xmlEntity*>(child->children);
        if (entity == nullptr || entity_depth >= 16 || entity_budget == 0) break;
        if (entity->etype != XML_INTERNAL_GENERAL_ENTITY &&
            entity->etype != XML_INTERNAL_PREDEFINED_ENTITY) {
          break;  // external entities are never read
        }
        GatherText(reinterpret_cast<const xmlNode*>(entity), out, entity_budget, entity_depth + 1);
        break;
      }
      case XML_ELEMENT_NODE:
        GatherText(child, out, entity_budget, entity_depth);
        break;
      default:
        break;  // comments and processing instructions are not text
    }
  }
}

}  // namespace

size_t LoadXmlMaxBytes(const SettingsStore& settings) {
  const int32_t value = settings.GetInt("internet2", "xml_max_bytes", 0);
  return value > 0 ? static_cast<size_t>(value) : kDefaultXmlMaxBytes;
}

XmlDocument::~XmlDocument() {
  reset();
}

XmlDocument& XmlDocument::operator=(XmlDocument&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

_xmlDoc* XmlDocument::release() {
  return std::exchange(doc_, nullptr);
}

void XmlDocument::reset(_xmlDoc* doc) {
  if (doc_ != nullptr) xmlFreeDoc(doc_);
  doc_ = doc;
}

std::string XmlResponseReader::GetSelectionNamespaces() const {
  return {};
}

HResult XmlResponseReader::LoadXmlResponse(std::string_view body, XmlDocument& document) {
  last_error_.clear();
  std::vector<std::pair<std::string, std::string>> namespaces;
  if (!ParseNamespaces(GetSelectionNamespaces(), namespaces)) {
    last_error_ = "malformed namespace declarations";
    return kInvalidArgument;
  }
  body = body.substr(0, body.find('\0'));
  if (body.size() > static_cast<size_t>(INT_MAX)) {
    last_error_ = "the body is too large";
    return kFail;
  }

  const size_t limit = max_bytes != 0 ? max_bytes : LoadXmlMaxBytes(*GlobalSettings());
  if (body.size() > limit) {
    last_error_ = "the answer is larger than " + std::to_string(limit) + " bytes";
    return kFail;
  }

  InstallLoader();
  xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
  if (ctxt == nullptr) {
    last_error_ = "out of memory";
    return kFail;
  }
  ctxt->sax->internalSubset = &RefuseDoctype;
  ctxt->sax->externalSubset = &RefuseDoctype;
  ctxt->sax->entityDecl = &RefuseEntity;
  ctxt->_private = nullptr;
  xmlDocPtr doc = nullptr;
  {
    ParsingScope scope;
    xmlResetLastError();
    doc = xmlCtxtReadMemory(ctxt, body.data(), static_cast<int>(body.size()), nullptr, nullptr,
                            XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  }
  const bool refused = ctxt->_private != nullptr;
  xmlFreeParserCtxt(ctxt);
  if (refused) {
    if (doc != nullptr) xmlFreeDoc(doc);
    last_error_ = "the answer declares a document type (DTD or entities), which is not accepted";
    return kFail;
  }
  if (doc == nullptr) {
    const xmlError* error = xmlGetLastError();
    last_error_ =
        error != nullptr && error->message != nullptr
            ? "line " + std::to_string(error->line) + ": " + std::string(TrimBlanks(error->message))
            : "not well-formed XML";
    return kFail;
  }
  document.reset(doc);
  return kOk;
}

std::vector<_xmlNode*> XmlResponseReader::SelectNodes(_xmlNode* node,
                                                      std::string_view xpath) const {
  std::vector<_xmlNode*> found;
  if (node == nullptr || (node->doc == nullptr && node->type != XML_DOCUMENT_NODE)) return found;
  xmlDocPtr doc = node->type == XML_DOCUMENT_NODE ? reinterpret_cast<xmlDocPtr>(node) : node->doc;
  std::vector<std::pair<std::string, std::string>> namespaces;
  if (!ParseNamespaces(GetSelectionNamespaces(), namespaces)) return found;

  xmlXPathContextPtr context = xmlXPathNewContext(doc);
  if (context == nullptr) return found;
  context->node = node;
  context->error = &IgnoreXPathError;
  for (const auto& [prefix, uri] : namespaces) {
    xmlXPathRegisterNs(context, reinterpret_cast<const xmlChar*>(prefix.c_str()),
                       reinterpret_cast<const xmlChar*>(uri.c_str()));
  }
  const std::string expression(xpath);
  xmlXPathObjectPtr result =
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), context);
  if (result != nullptr && result->type == XPATH_NODESET && result->nodesetval != nullptr) {
    const xmlNodeSet* set = result->nodesetval;
    found.reserve(static_cast<size_t>(set->nodeNr));
    for (int i = 0; i < set->nodeNr; ++i) {
      // Namespace nodes in a result are copies that die with it.
      if (set->nodeTab[i]->type != XML_NAMESPACE_DECL) found.push_back(set->nodeTab[i]);
    }
  }
  xmlXPathFreeObject(result);
  xmlXPathFreeContext(context);
  return found;
}

_xmlNode* XmlResponseReader::SelectSingleNode(_xmlNode* node, std::string_view xpath) const {
  const std::vector<_xmlNode*> nodes = SelectNodes(node, xpath);
  return nodes.empty() ? nullptr : nodes.front();
}

std::string XmlResponseReader::NodeText(_xmlNode* node) const {
  std::string text;
  if (node == nullptr) return text;
  size_t budget = kMaxEntityExpansion;
  if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
    if (node->content != nullptr) text = reinterpret_cast<const char*>(node->content);
  } else {
    GatherText(node, text, budget, 0);
  }
  std::string_view trimmed = text;
  while (!trimmed.empty() && IsXmlBlank(trimmed.front()))
    trimmed.remove_prefix(1);
  while (!trimmed.empty() && IsXmlBlank(trimmed.back()))
    trimmed.remove_suffix(1);
  switch (code_page) {
    case static_cast<uint32_t>(CodePage::kWindows1252):
    case static_cast<uint32_t>(CodePage::kLatin1):
      return FromUtf8(trimmed, static_cast<CodePage>(code_page));
    default:
      return std::string(trimmed);
  }
}

bool XmlResponseReader::SelectNodeText(_xmlNode* node, std::string_view xpath,
                                       std::string& text) const {
  _xmlNode* found = SelectSingleNode(node, xpath);
  if (found == nullptr) return false;
  text = NodeText(found);
  return true;
}

}  // namespace dischive
