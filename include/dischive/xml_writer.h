// A streaming XML writer with scoped elements. Text goes out as it is written
// (through a small buffer), so a document of any size needs constant memory.
//
// Layout: a start tag that follows a start tag goes on a new line one tab deeper;
// one that follows an end tag goes on a new line at the same depth; an end tag
// that follows an end tag goes on a new line one tab shallower. An element that
// holds only text is therefore written on one line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <string>
#include <string_view>

#include "dischive/text.h"

namespace dischive {

/// Where a writer's bytes go. Write returns false on failure; the writer then
/// stops writing and reports the failure from ok() and Finish().
class XmlOutput {
 public:
  virtual ~XmlOutput() = default;
  virtual bool Write(const char* data, size_t size) = 0;
};

/// Appends to a string (tests, small documents).
class StringXmlOutput : public XmlOutput {
 public:
  bool Write(const char* data, size_t size) override {
    text_.append(data, size);
    return true;
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// Writes to a std::ostream; fails when the stream goes bad.
class OstreamXmlOutput : public XmlOutput {
 public:
  explicit OstreamXmlOutput(std::ostream& stream) : stream_(stream) {}
  bool Write(const char* data, size_t size) override;

 private:
  std::ostream& stream_;
};

class XmlElementScope;

class XmlStreamWriter {
 public:
  /// Writes the declaration at once. Texts and attribute values handed to the
  /// writer are in `page` (UTF-8 or an 8-bit code page) and are converted to
  /// UTF-8; characters XML 1.0 cannot carry are dropped.
  explicit XmlStreamWriter(XmlOutput& output, CodePage page = CodePage::kWindows1252);
  ~XmlStreamWriter();
  XmlStreamWriter(const XmlStreamWriter&) = delete;
  XmlStreamWriter& operator=(const XmlStreamWriter&) = delete;

  /// Escaped character data inside the innermost open element.
  void WriteText(std::string_view text);
  /// A CDATA section ("\r\n" collapsed to "\n"); empty text writes nothing.
  void WriteCData(std::string_view text);
  /// <name>text</name> (written even when the text is empty).
  void WriteTextElement(std::string_view name, std::string_view text);
  /// <name><![CDATA[text]]></name>.
  void WriteCDataElement(std::string_view name, std::string_view text);

  /// Hands everything buffered to the output. False when a write failed.
  bool Flush();
  /// Flushes; false when any write failed. Scopes must all be closed.
  bool Finish();
  bool ok() const { return ok_; }
  /// Bytes produced so far, buffered or not.
  uint64_t bytes_written() const { return flushed_ + buffer_.size(); }

 private:
  friend class XmlElementScope;
  enum class State { kNone, kStartTag, kEndTag, kText };

  void Put(std::string_view bytes) {
    buffer_.append(bytes);
    if (buffer_.size() >= kFlushThreshold) Flush();
  }
  void PutChar(char c) { buffer_.push_back(c); }
  void PutNewlineIndent();
  /// Appends text converted to UTF-8, cleaned of characters XML cannot hold,
  /// with markup characters escaped.
  void AppendEscaped(std::string& out, std::string_view text);
  /// The same for the inside of a CDATA section: "\r\n" collapsed to "\n" and
  /// "]]>" split across two sections.
  void PutCDataBody(std::string_view text);
  void WriteStartTag(std::string_view name, std::string_view attributes, bool empty);
  void WriteEndTag(std::string_view name);
  /// Writes the start tags of deferred scopes from the outermost one inwards,
  /// up to and including `scope`.
  void ForceOut(XmlElementScope* scope);
  std::string& AttributeBuffer(size_t depth);

  static constexpr size_t kFlushThreshold = 64 * 1024;

  XmlOutput& output_;
  CodePage page_;
  std::string buffer_;
  std::string converted_;  // scratch for 8-bit input converted to UTF-8
  std::string indent_;
  State state_ = State::kNone;
  XmlElementScope* innermost_ = nullptr;
  size_t live_scopes_ = 0;
  std::deque<std::string> attribute_buffers_;  // one per nesting depth, reused
  uint64_t flushed_ = 0;
  bool ok_ = true;
};

/// One element being written. Construct it, add attributes, Open it, write its
/// content, and let it go out of scope (or Close it) before its parent.
///
/// A deferred scope writes nothing until content or a non-deferred child forces
/// its start tag out; closed without that, it becomes "<name .../>" when it has
/// attributes and vanishes when it has none.
class XmlElementScope {
 public:
  /// `name` must outlive the scope (element names are literals).
  XmlElementScope(XmlStreamWriter& writer, std::string_view name);
  ~XmlElementScope();
  XmlElementScope(const XmlElementScope&) = delete;
  XmlElementScope& operator=(const XmlElementScope&) = delete;

  /// Adds an attribute (before Open); an empty value adds nothing.
  XmlElementScope& Attribute(std::string_view name, std::string_view value);
  bool has_attributes() const { return !attributes_.empty(); }

  XmlElementScope& Open(bool deferred = false);
  void WriteText(std::string_view text) { writer_.WriteText(text); }
  void WriteCData(std::string_view text) { writer_.WriteCData(text); }
  void Close();

 private:
  friend class XmlStreamWriter;

  XmlStreamWriter& writer_;
  std::string_view name_;
  std::string& attributes_;  // escaped ' name="value"' pairs, in order
  XmlElementScope* parent_ = nullptr;
  bool open_ = false;
  bool deferred_ = false;  // start tag not yet written
};

}  // namespace dischive
