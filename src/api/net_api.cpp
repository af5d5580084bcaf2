// C entry points: HTTP transport, transcript, error texts and XML responses.
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/http.h"
#include "dischive/settings.h"
#include "dischive/xml_response.h"

namespace {

constexpr DHV_RESULT kOutOfMemory = 0x8007000E;
constexpr DHV_RESULT kNotEnoughMemory = 8;  // ERROR_NOT_ENOUGH_MEMORY
constexpr DHV_RESULT kBadParameter = 87;    // ERROR_INVALID_PARAMETER

// A fixed field read up to its NUL, or to its end when the caller filled it.
template <size_t N>
std::string_view Field(const char (&field)[N]) {
  return std::string_view(field, strnlen(field, N));
}

std::string_view Text(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

// Appends to a malloc'ed text, growing it once.
DHV_RESULT AppendToCText(char** text, std::string_view addition) {
  if (text == nullptr) return kBadParameter;
  const size_t old = *text != nullptr ? std::strlen(*text) : 0;
  auto* grown = static_cast<char*>(std::realloc(*text, old + addition.size() + 1));
  if (grown == nullptr) return kOutOfMemory;
  std::memcpy(grown + old, addition.data(), addition.size());
  grown[old + addition.size()] = '\0';
  *text = grown;
  return 0;
}

// The C++ view of the parts of a C record that a transcript reads.
dischive::HttpRequest TranscriptView(const HttpRequest& c) {
  dischive::HttpRequest r;
  r.sent_headers = Text(c.sent_headers);
  if (c.body != nullptr) r.body.assign(static_cast<const char*>(c.body), c.body_length);
  r.response_headers = Text(c.response_headers);
  if (c.response_body != nullptr) r.response_body.assign(c.response_body, c.response_length);
  return r;
}

bool CopyChecked(std::string_view text, char* buffer, size_t size) {
  dischive::api::CopyToBuffer(text, buffer, size);
  return text.size() < size;
}

}  // namespace

extern "C" DHV_RESULT LoadInternetSettings(InternetSettings* settings) {
  if (settings == nullptr) return dischive::kInvalidArgument;
  const dischive::InternetSettings s = dischive::LoadInternetSettings(*dischive::GlobalSettings());
  settings->preconfigured = s.preconfigured ? 1 : 0;
  settings->use_proxy = s.use_proxy ? 1 : 0;
  bool fits = CopyChecked(s.proxy_address, settings->proxy_address, sizeof settings->proxy_address);
  fits &= CopyChecked(s.agent, settings->agent, sizeof settings->agent);
  return fits ? 0 : dischive::kInvalidArgument;
}

extern "C" DHV_RESULT PerformHttpRequest(HttpRequest* c) {
  if (c == nullptr) return kBadParameter;
  c->sent_headers = nullptr;
  c->response_headers = nullptr;
  c->response_body = nullptr;
  c->response_length = 0;
  if (c->server == nullptr || c->port > 0xFFFF || (c->body == nullptr && c->body_length != 0)) {
    return kBadParameter;
  }

  dischive::HttpRequest r;
  r.access_type = static_cast<dischive::AccessType>(c->access_type);
  r.proxy = Field(c->proxy);
  r.proxy_bypass = Field(c->proxy_bypass);
  r.agent = Field(c->agent);
  r.extra_headers = Text(c->extra_headers);
  r.decoding = c->decoding != 0;
  r.no_authentication = c->no_authentication != 0;
  r.server = c->server;
  r.object = c->object != nullptr ? c->object : "/";
  r.port = static_cast<uint16_t>(c->port);
  r.verb = c->verb != nullptr ? c->verb : "GET";
  if (c->body != nullptr) r.body.assign(static_cast<const char*>(c->body), c->body_length);
  r.user = Field(c->user);
  r.password = Field(c->password);
  if (c->prompt != nullptr) {
    r.prompt = [c, &r](dischive::HResult error, uint32_t status) {
      const uint32_t outcome = c->prompt(c->prompt_context, c, error, status);
      r.user = Field(c->user);
      r.password = Field(c->password);
      return outcome;
    };
  }

  dischive::HResult result = dischive::PerformHttpRequest(r);
  if (!r.sent_headers.empty()) c->sent_headers = dischive::api::DupString(r.sent_headers);
  if (!r.response_headers.empty()) {
    c->response_headers = dischive::api::DupString(r.response_headers);
    // The body buffer exists whenever a response arrived, even when empty.
    c->response_body = dischive::api::DupString(r.response_body);
    if (c->response_body != nullptr) {
      c->response_length = static_cast<uint32_t>(r.response_body.size());
    }
  }
  if ((!r.sent_headers.empty() && c->sent_headers == nullptr) ||
      (!r.response_headers.empty() &&
       (c->response_headers == nullptr || c->response_body == nullptr))) {
    result = kNotEnoughMemory;
  }
  c->status_code = r.status_code;
  return result;
}

extern "C" DHV_RESULT FormatHttpTranscript(char** text, const HttpRequest* request) {
  if (request == nullptr) return kBadParameter;
  std::string transcript;
  dischive::FormatHttpTranscript(transcript, TranscriptView(*request));
  return AppendToCText(text, transcript);
}

extern "C" DHV_RESULT AppendTranscriptLines(char** text, const char* lines, int direction) {
  std::string transcript;
  const auto d = direction == 1   ? dischive::TranscriptDirection::kReceived
                 : direction == 2 ? dischive::TranscriptDirection::kSent
                                  : dischive::TranscriptDirection::kNote;
  dischive::AppendTranscriptLines(transcript, Text(lines), d);
  return AppendToCText(text, transcript);
}

extern "C" char* FormatErrorMessage(DHV_RESULT code) {
  return dischive::api::DupString(dischive::FormatErrorMessage(code));
}

// The C reader: namespace declarations given at creation.
struct XmlResponseReader : public dischive::XmlResponseReader {
  std::string namespaces;
  std::string GetSelectionNamespaces() const override { return namespaces; }
};

extern "C" XmlResponseReader* CreateXmlResponseReader(const char* selection_namespaces) {
  auto* reader = new (std::nothrow) XmlResponseReader;
  if (reader != nullptr) reader->namespaces = Text(selection_namespaces);
  return reader;
}

extern "C" void DestroyXmlResponseReader(XmlResponseReader* reader) {
  delete reader;
}

extern "C" DHV_RESULT LoadXmlResponse(XmlResponseReader* reader, const char* body,
                                      struct _xmlDoc** document) {
  if (reader == nullptr || body == nullptr || document == nullptr) {
    return dischive::kInvalidArgument;
  }
  *document = nullptr;
  dischive::XmlDocument doc;
  const dischive::HResult result = reader->LoadXmlResponse(body, doc);
  if (result == dischive::kOk) *document = doc.release();
  return result;
}
