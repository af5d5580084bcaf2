#include "dischive/xml_writer.h"

#include <array>
#include <cassert>
#include <ostream>

namespace dischive {
namespace {

constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
constexpr std::string_view kReplacementUtf8 = "\xEF\xBF\xBD";

// Control characters XML 1.0 cannot carry: everything below 0x20 except tab,
// LF and CR. They are dropped from text, attribute values and CDATA.
constexpr bool IsDropped(unsigned char c) {
  return c < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

// Bytes that element text and attribute values cannot take over as they are:
// dropped controls, the markup characters, and every byte of a multi-byte
// sequence (which is checked before it is copied).
constexpr std::array<bool, 256> MakeTextStops() {
  std::array<bool, 256> stops{};
  for (int c = 0; c < 256; ++c) {
    stops[c] = c >= 0x80 || IsDropped(static_cast<unsigned char>(c)) || c == '&' || c == '<' ||
               c == '>' || c == '"';
  }
  return stops;
}
constexpr std::array<bool, 256> kTextStops = MakeTextStops();

}  // namespace

bool OstreamXmlOutput::Write(const char* data, size_t size) {
  stream_.write(data, static_cast<std::streamsize>(size));
  return static_cast<bool>(stream_);
}

XmlStreamWriter::XmlStreamWriter(XmlOutput& output, CodePage page) : output_(output), page_(page) {
  buffer_.reserve(kFlushThreshold + 4096);
  Put(kDeclaration);
}

XmlStreamWriter::~XmlStreamWriter() {
  Flush();
}

bool XmlStreamWriter::Flush() {
  if (ok_ && !buffer_.empty()) {
    ok_ = output_.Write(buffer_.data(), buffer_.size());
    flushed_ += buffer_.size();
  }
  buffer_.clear();
  return ok_;
}

bool XmlStreamWriter::Finish() {
  assert(innermost_ == nullptr);
  return Flush();
}

void XmlStreamWriter::PutNewlineIndent() {
  PutChar('\n');
  buffer_.append(indent_);
}

// One pass over the text: conversion check, removal of characters outside the
// XML 1.0 character range, and escaping ("&", ">", "<" and '"'; apostrophes
// stay) or, in CDATA, "\r\n" collapsed to "\n" and "]]>" split so that the
// section cannot end early.
void XmlStreamWriter::AppendEscaped(std::string& out, std::string_view text) {
  if (page_ != CodePage::kUtf8) {
    converted_ = ToUtf8(text, page_);
    text = converted_;
  }
  size_t run = 0;  // start of the bytes not yet copied
  size_t pos = 0;
  const size_t size = text.size();
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  while (true) {
    while (pos < size && !kTextStops[bytes[pos]])
      ++pos;
    if (pos >= size) break;
    const unsigned char byte = bytes[pos];
    if (byte < 0x80) {
      out.append(text.data() + run, pos - run);
      ++pos;
      run = pos;
      switch (byte) {
        case '&':
          out.append("&amp;");
          break;
        case '>':
          out.append("&gt;");
          break;
        case '<':
          out.append("&lt;");
          break;
        case '"':
          out.append("&quot;");
          break;
        default:
          break;  // dropped control character
      }
      continue;
    }
    const size_t start = pos;
    const char32_t cp = DecodeUtf8(text, pos);
    if (cp != kReplacementChar && cp != 0xFFFE && cp != 0xFFFF) continue;
    out.append(text.data() + run, start - run);
    run = pos;
    if (cp == kReplacementChar) out.append(kReplacementUtf8);
  }
  out.append(text.data() + run, size - run);
}

void XmlStreamWriter::PutCDataBody(std::string_view text) {
  if (page_ != CodePage::kUtf8) {
    converted_ = ToUtf8(text, page_);
    text = converted_;
  }
  size_t brackets = 0;  // "]" written just before, to catch "]]>" after removals
  size_t pos = 0;
  const size_t size = text.size();
  while (pos < size) {
    const auto byte = static_cast<unsigned char>(text[pos]);
    if (byte < 0x80) {
      ++pos;
      if (IsDropped(byte)) continue;
      if (byte == '\r' && pos < size && text[pos] == '\n') continue;
      if (byte == '>' && brackets >= 2) buffer_.append("]]><![CDATA[");
      brackets = byte == ']' ? brackets + 1 : 0;
      buffer_.push_back(static_cast<char>(byte));
      continue;
    }
    brackets = 0;
    const size_t start = pos;
    const char32_t cp = DecodeUtf8(text, pos);
    if (cp == kReplacementChar) {
      buffer_.append(kReplacementUtf8);
    } else if (cp != 0xFFFE && cp != 0xFFFF) {
      buffer_.append(text.data() + start, pos - start);
    }
  }
}

void XmlStreamWriter::WriteStartTag(std::string_view name, std::string_view attributes,
                                    bool empty) {
  if (state_ == State::kStartTag) {
    indent_.push_back('\t');
    PutNewlineIndent();
  } else if (state_ == State::kEndTag) {
    PutNewlineIndent();
  }
  PutChar('<');
  buffer_.append(name);
  buffer_.append(attributes);
  if (empty) {
    // "<name/>" is its own end tag: the next tag is a sibling.
    buffer_.append("/>");
    state_ = State::kEndTag;
  } else {
    PutChar('>');
    state_ = State::kStartTag;
  }
  if (buffer_.size() >= kFlushThreshold) Flush();
}

void XmlStreamWriter::WriteEndTag(std::string_view name) {
  if (state_ == State::kEndTag) {
    if (!indent_.empty()) indent_.pop_back();
    PutNewlineIndent();
  }
  buffer_.append("</");
  buffer_.append(name);
  PutChar('>');
  state_ = State::kEndTag;
  if (buffer_.size() >= kFlushThreshold) Flush();
}

void XmlStreamWriter::ForceOut(XmlElementScope* scope) {
  if (scope == nullptr || !scope->deferred_) return;
  ForceOut(scope->parent_);
  WriteStartTag(scope->name_, scope->attributes_, false);
  scope->deferred_ = false;
}

void XmlStreamWriter::WriteText(std::string_view text) {
  ForceOut(innermost_);
  AppendEscaped(buffer_, text);
  state_ = State::kText;
  if (buffer_.size() >= kFlushThreshold) Flush();
}

void XmlStreamWriter::WriteCData(std::string_view text) {
  if (text.empty()) return;
  ForceOut(innermost_);
  buffer_.append("<![CDATA[");
  PutCDataBody(text);
  buffer_.append("]]>");
  state_ = State::kText;
  if (buffer_.size() >= kFlushThreshold) Flush();
}

void XmlStreamWriter::WriteTextElement(std::string_view name, std::string_view text) {
  ForceOut(innermost_);
  WriteStartTag(name, {}, false);
  AppendEscaped(buffer_, text);
  state_ = State::kText;
  WriteEndTag(name);
}

void XmlStreamWriter::WriteCDataElement(std::string_view name, std::string_view text) {
  ForceOut(innermost_);
  WriteStartTag(name, {}, false);
  WriteCData(text);
  WriteEndTag(name);
}

std::string& XmlStreamWriter::AttributeBuffer(size_t depth) {
  while (attribute_buffers_.size() <= depth)
    attribute_buffers_.emplace_back();
  std::string& buffer = attribute_buffers_[depth];
  buffer.clear();
  return buffer;
}

XmlElementScope::XmlElementScope(XmlStreamWriter& writer, std::string_view name)
    : writer_(writer), name_(name), attributes_(writer.AttributeBuffer(writer.live_scopes_)) {
  ++writer_.live_scopes_;
}

XmlElementScope::~XmlElementScope() {
  Close();
  --writer_.live_scopes_;
}

XmlElementScope& XmlElementScope::Attribute(std::string_view name, std::string_view value) {
  assert(!open_);
  if (value.empty()) return *this;
  attributes_.push_back(' ');
  attributes_.append(name);
  attributes_.append("=\"");
  writer_.AppendEscaped(attributes_, value);
  attributes_.push_back('"');
  return *this;
}

XmlElementScope& XmlElementScope::Open(bool deferred) {
  assert(!open_);
  open_ = true;
  parent_ = writer_.innermost_;
  writer_.innermost_ = this;
  deferred_ = true;
  if (!deferred) writer_.ForceOut(this);
  return *this;
}

void XmlElementScope::Close() {
  if (!open_) return;
  open_ = false;
  assert(writer_.innermost_ == this);
  if (deferred_) {
    if (has_attributes()) {
      writer_.ForceOut(parent_);
      writer_.WriteStartTag(name_, attributes_, true);
    }
    deferred_ = false;
  } else {
    writer_.WriteEndTag(name_);
  }
  writer_.innermost_ = parent_;
}

}  // namespace dischive
