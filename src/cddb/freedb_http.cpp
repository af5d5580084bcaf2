// freedb lookups over HTTP: each command is a GET of the configured lookup
// address ("acquire_url") with "?cmd=...&hello=...&proto=..." appended.
#include <fmt/printf.h>

#include "cddb/disc_lookup.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "util/url.h"

namespace dischive {
namespace {

class HttpFreedbSource : public detail::FreedbSource {
 public:
  HttpFreedbSource(const SettingsStore& settings, std::string* transcript)
      : transcript_(transcript),
        internet_(LoadInternetSettings(settings)),
        address_(ParseHttpUrl(
            settings.GetString(kFreedbSettingsGroup, "acquire_url", DefaultAcquireUrl()))),
        email_(detail::FreedbEmailAddress(settings)),
        proto_(detail::FreedbProtoLevel(settings)) {}
  ~HttpFreedbSource() override { CloseHttpSession(session_); }

  QueryResult Query(const DiscToc& toc, std::vector<FreedbMatch>& matches,
                    size_t capacity) override {
    std::string body;
    if (const HResult r = Get(BuildQueryRequest(toc, email_, proto_), body); r != kOk) {
      return {kQueryBad, r};
    }
    return {ParseQueryResponse(body, matches, capacity), kOk};
  }

  HResult Read(const FreedbMatch& match, XmcdKeywordMap& map) override {
    std::string body;
    if (const HResult r =
            Get(BuildReadRequest(match.disc_id, match.category, email_, proto_), body);
        r != kOk) {
      return r;
    }
    if (body.compare(0, 4, "210 ") != 0) return kFreedbServiceError;
    // The rest of the status line begins with a blank: the parser skips it.
    return ParseXmcdEntry(std::string_view(body).substr(3), map) ? kOk : kFreedbServiceError;
  }

 private:
  HResult Get(const std::string& query, std::string& body) {
    if (!address_) return kNotHttpAddress;
    HttpRequest request;
    ApplyInternetSettings(internet_, request);
    request.server = address_->host;
    request.port = address_->port;
    request.object = address_->object + query;
    request.verb = "GET";
    const HResult r = ExecuteHttpRequest(request, session_);
    if (transcript_ != nullptr) FormatHttpTranscript(*transcript_, request);
    if (r != kOk) return r;
    if (request.status_code != 200) return kHttpStatusNotOk;
    body = detail::DecodeFreedbText(request.response_body, proto_);
    return kOk;
  }

  std::string* transcript_;
  InternetSettings internet_;
  std::optional<HttpUrl> address_;
  std::string email_;
  int proto_;
  HttpSession session_;
};

}  // namespace

HResult LookupDiscsFreedb(DiscLookupRequest& request, const SettingsStore& settings,
                          std::string* transcript) {
  detail::PostProgress(request, 0, LoadHostString(strings::kLookupStarting));
  HttpFreedbSource source(settings, transcript);
  return detail::LookupEachDisc(request, source);
}

HResult LookupDiscsFreedb(DiscLookupRequest& request) {
  const std::shared_ptr<SettingsStore> settings = GlobalSettings();
  return LookupDiscsFreedb(request, *settings);
}

}  // namespace dischive
