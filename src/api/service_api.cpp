// C entry points: the collection service's envelope protocol.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/http.h"
#include "dischive/service.h"
#include "dischive/settings.h"

namespace {

constexpr DHV_RESULT kOutOfMemory = 0x8007000E;

std::string_view Text(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

// The params as one block: the pairs first, their NUL-terminated texts after
// them, so that one free() releases everything.
DhvServiceParam* PackParams(const std::vector<dischive::ServiceParam>& params) {
  size_t size = params.size() * sizeof(DhvServiceParam);
  for (const auto& p : params)
    size += p.name.size() + p.value.size() + 2;
  auto* block = static_cast<char*>(std::malloc(size));
  if (block == nullptr) return nullptr;
  auto* pairs = reinterpret_cast<DhvServiceParam*>(block);
  char* text = block + params.size() * sizeof(DhvServiceParam);
  for (size_t i = 0; i < params.size(); ++i) {
    const auto copy = [&text](const std::string& s) {
      std::memcpy(text, s.c_str(), s.size() + 1);
      const char* start = text;
      text += s.size() + 1;
      return start;
    };
    pairs[i].name = copy(params[i].name);
    pairs[i].value = copy(params[i].value);
  }
  return pairs;
}

DHV_RESULT Send(const char* command, const DhvServiceParam* params, uint32_t param_count,
                const char* payload_path, const InternetSettings* settings, char** log,
                const DhvCoverAttachment* covers, uint32_t cover_count, DhvServiceResult* result,
                bool with_covers) {
  if (result != nullptr) *result = {};
  if (command == nullptr || (params == nullptr && param_count != 0) ||
      (covers == nullptr && cover_count != 0)) {
    return dischive::kInvalidArgument;
  }
  std::vector<dischive::ServiceParam> request_params;
  for (uint32_t i = 0; i < param_count; ++i) {
    request_params.push_back(
        {std::string(Text(params[i].name)), std::string(Text(params[i].value))});
  }
  std::vector<dischive::CoverAttachment> attachments;
  for (uint32_t i = 0; i < cover_count; ++i) {
    if (covers[i].bytes == nullptr && covers[i].length != 0) return dischive::kInvalidArgument;
    attachments.push_back(
        {std::string_view(static_cast<const char*>(covers[i].bytes), covers[i].length),
         std::string(Text(covers[i].album_id))});
  }

  dischive::ServiceConnection connection;
  if (settings != nullptr) {
    connection.internet.preconfigured = settings->preconfigured != 0;
    connection.internet.use_proxy = settings->use_proxy != 0;
    connection.internet.proxy_address = std::string(
        settings->proxy_address, strnlen(settings->proxy_address, sizeof settings->proxy_address));
    connection.internet.agent =
        std::string(settings->agent, strnlen(settings->agent, sizeof settings->agent));
  } else {
    connection.internet = dischive::LoadInternetSettings(*dischive::GlobalSettings());
  }
  std::string transcript;
  if (log != nullptr) connection.log = &transcript;

  std::vector<dischive::ServiceParam> answer_params;
  std::vector<dischive::AlbumState> albums;
  DHV_RESULT code = dischive::SendServiceRequest(
      connection, command, request_params, result != nullptr ? &answer_params : nullptr,
      payload_path != nullptr ? std::filesystem::path(payload_path) : std::filesystem::path(),
      attachments, result != nullptr ? &albums : nullptr, with_covers);

  if (log != nullptr && !transcript.empty()) {
    const size_t old = *log != nullptr ? std::strlen(*log) : 0;
    auto* grown = static_cast<char*>(std::realloc(*log, old + transcript.size() + 1));
    if (grown == nullptr) return kOutOfMemory;
    std::memcpy(grown + old, transcript.c_str(), transcript.size() + 1);
    *log = grown;
  }
  if (result == nullptr) return code;
  if (!answer_params.empty()) {
    result->params = PackParams(answer_params);
    if (result->params == nullptr) return kOutOfMemory;
    result->param_count = static_cast<uint32_t>(answer_params.size());
  }
  if (!albums.empty()) {
    result->albums = static_cast<DhvAlbumState*>(std::calloc(albums.size(), sizeof(DhvAlbumState)));
    if (result->albums == nullptr) return kOutOfMemory;
    result->album_count = static_cast<uint32_t>(albums.size());
    for (size_t i = 0; i < albums.size(); ++i) {
      DhvAlbumState& out = result->albums[i];
      dischive::api::CopyToBuffer(albums[i].id, out.id, sizeof out.id);
      out.modified = albums[i].modified;
      out.played = albums[i].played;
      out.rated = albums[i].rated;
      dischive::api::CopyToBuffer(albums[i].cover_hash, out.cover_hash, sizeof out.cover_hash);
    }
  }
  return code;
}

}  // namespace

extern "C" DHV_RESULT SendServiceRequest(const char* command, const DhvServiceParam* params,
                                         uint32_t param_count, const char* payload_path,
                                         const InternetSettings* settings, char** log,
                                         const DhvCoverAttachment* covers, uint32_t cover_count,
                                         DhvServiceResult* result) {
  return Send(command, params, param_count, payload_path, settings, log, covers, cover_count,
              result, false);
}

extern "C" DHV_RESULT SendServiceRequestWithCovers(const char* command,
                                                   const DhvServiceParam* params,
                                                   uint32_t param_count, const char* payload_path,
                                                   const InternetSettings* settings, char** log,
                                                   const DhvCoverAttachment* covers,
                                                   uint32_t cover_count, DhvServiceResult* result) {
  return Send(command, params, param_count, payload_path, settings, log, covers, cover_count,
              result, true);
}

extern "C" void SetServiceHostName(const char* host) {
  dischive::SetServiceHostName(Text(host));
}

extern "C" char* GetServiceErrorMessage(void) {
  const std::optional<std::string> message = dischive::ServiceErrorMessage();
  return message ? dischive::api::DupString(*message) : nullptr;
}

extern "C" void ClearServiceErrorMessage(void) {
  dischive::ClearServiceErrorMessage();
}

extern "C" const char* FindServiceParam(const DhvServiceParam* params, uint32_t count,
                                        const char* name) {
  if (params == nullptr || name == nullptr) return nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    if (params[i].name != nullptr && std::strcmp(params[i].name, name) == 0) return params[i].value;
  }
  return nullptr;
}
