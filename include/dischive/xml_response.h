// XML answers of the online services: a response body parsed into a document,
// with XPath selection and optional namespace prefixes. Parsing never touches
// the network or the file system, a body with a document type declaration (and
// so any entity declaration) is refused, and so is a body above a size limit.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/result.h"
#include "dischive/settings.h"

// libxml2's document and node types, for callers that read further with it.
struct _xmlDoc;
struct _xmlNode;

namespace dischive {

/// A parsed response; owns its libxml2 document (released with xmlFreeDoc).
class XmlDocument {
 public:
  XmlDocument() = default;
  explicit XmlDocument(_xmlDoc* doc) : doc_(doc) {}
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;
  XmlDocument(XmlDocument&& other) noexcept : doc_(other.release()) {}
  XmlDocument& operator=(XmlDocument&& other) noexcept;

  explicit operator bool() const { return doc_ != nullptr; }
  _xmlDoc* get() const { return doc_; }
  /// The document itself as a node: the context for selections from the top.
  _xmlNode* node() const { return reinterpret_cast<_xmlNode*>(doc_); }
  /// Hands the document to the caller, who frees it with xmlFreeDoc.
  _xmlDoc* release();
  void reset(_xmlDoc* doc = nullptr);

 private:
  _xmlDoc* doc_ = nullptr;
};

/// Loads response bodies and reads node texts. A service whose answers use
/// namespaces derives from it and declares the prefixes its XPath uses.
class XmlResponseReader {
 public:
  XmlResponseReader() = default;
  virtual ~XmlResponseReader() = default;

  /// Namespace declarations for XPath, as "xmlns:z='uri' xmlns:a='uri'";
  /// empty (the default) for none.
  virtual std::string GetSelectionNamespaces() const;

  /// Parses the body (up to its first NUL); the document's own encoding
  /// declaration decides the character set. Returns 0 and the document, E_FAIL
  /// (0x80004005) when the body is not well-formed XML, declares a document
  /// type or is longer than the limit (last_error() says which), or
  /// E_INVALIDARG when the namespace declarations are malformed.
  HResult LoadXmlResponse(std::string_view body, XmlDocument& document);

  /// The text of the first node the XPath selects under `node` (a document's
  /// node() or any node of it), converted to the reader's code page. Returns
  /// false and leaves `text` untouched when nothing matches.
  bool SelectNodeText(_xmlNode* node, std::string_view xpath, std::string& text) const;
  /// The first node the XPath selects under `node`, or nullptr.
  _xmlNode* SelectSingleNode(_xmlNode* node, std::string_view xpath) const;
  /// Every node the XPath selects under `node`, in document order.
  std::vector<_xmlNode*> SelectNodes(_xmlNode* node, std::string_view xpath) const;
  /// The text of a node and its descendants (entity references expanded within
  /// a fixed budget), white space at both ends removed, in the code page.
  std::string NodeText(_xmlNode* node) const;

  /// Code page of the texts handed out: 0 or 65001 UTF-8, 1252 Windows-1252,
  /// 28591 Latin-1.
  uint32_t code_page = 0;

  /// Longest body accepted, in bytes; 0 (the default) takes the setting
  /// "internet2" "xml_max_bytes" from the global settings.
  size_t max_bytes = 0;

  /// Why the last load failed ("line 3: ..."), empty after a success.
  const std::string& last_error() const { return last_error_; }

 private:
  std::string last_error_;
};

/// Bytes of entity expansion a node text may contain; the rest is dropped, so a
/// document of nested entities cannot blow up memory.
inline constexpr size_t kMaxEntityExpansion = size_t{1} << 20;

/// The size limit of XML answers when nothing else is set: 64 MiB.
inline constexpr size_t kDefaultXmlMaxBytes = size_t{64} << 20;

/// "internet2" "xml_max_bytes", or kDefaultXmlMaxBytes when absent or not
/// positive.
size_t LoadXmlMaxBytes(const SettingsStore& settings);

}  // namespace dischive
