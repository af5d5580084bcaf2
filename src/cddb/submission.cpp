// freedb submission: the checks an entry must pass, the HTTP POST to the
// server's submission script, and the request-level loop that submits every
// entry of a request by HTTP or mail.
#include <fmt/printf.h>

#include <algorithm>

#include "cddb/disc_lookup.h"
#include "cddb/submission_internal.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "util/parse.h"
#include "util/url.h"

namespace dischive {
namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// "Track", one blank and a number: the default title a ripper writes for a
// track nobody named. Such an entry is refused on purpose, as freedb does.
bool IsDefaultTrackTitle(std::string_view title) {
  constexpr std::string_view kWord = "Track ";
  if (!title.starts_with(kWord) || title.size() == kWord.size()) return false;
  return std::all_of(title.begin() + static_cast<ptrdiff_t>(kWord.size()), title.end(), IsDigit);
}

// The script's answer: a decimal code at the start of the body ("200 OK, ...").
HResult ScriptAnswerCode(std::string_view body) {
  const size_t start = std::min(body.size(), body.find_first_not_of(" \t\r\n"));
  body.remove_prefix(start);
  const std::optional<uint32_t> code =
      ParseDecimal32(body.substr(0, body.find_first_not_of("0123456789")), 999);
  if (!code) return kFreedbServiceError;
  switch (*code) {
    case 200:
      return kOk;
    case 500:
      return kSubmitScript500;
    case 501:
      return kSubmitScript501;
    default:
      return kFreedbServiceError;
  }
}

// Posts progress and submits each entry; `submit_one` delivers one entry.
template <typename SubmitOne>
HResult SubmitEach(DiscLookupRequest& request, SubmitOne submit_one) {
  size_t count = 0;
  {
    std::lock_guard<std::mutex> guard(request.lock);
    if (request.submissions == nullptr) return kAborted;
    count = request.submissions->size();
  }
  for (size_t index = 0; index < count; ++index) {
    DiscSubmission entry;
    {
      std::lock_guard<std::mutex> guard(request.lock);
      if (request.submissions == nullptr) return kAborted;
      entry = (*request.submissions)[index].entry;
    }
    detail::PostProgress(request, detail::ProgressParam(index, count),
                         LoadHostString(strings::kSubmitSending));
    const HResult result = submit_one(entry);
    std::lock_guard<std::mutex> guard(request.lock);
    if (request.submissions == nullptr) return kAborted;
    (*request.submissions)[index].result = result;
  }
  return kOk;
}

}  // namespace

const std::vector<std::string>& FreedbCategories() {
  static const std::vector<std::string> categories = {
      "blues", "classical", "country", "data", "folk",       "jazz",
      "misc",  "newage",    "reggae",  "rock", "soundtrack",
  };
  return categories;
}

HResult ValidateSubmission(const DiscSubmission& s, std::string* problem) {
  auto fail = [problem](HResult code, std::string what) {
    if (problem != nullptr) *problem = std::move(what);
    return code;
  };
  if (s.disc_id == 0 || s.disc_id == 0xFFFFFFFF) {
    return fail(kInvalidSubmission, fmt::sprintf("discId %08x is not a disc id", s.disc_id));
  }
  if (s.track_count < 1 || s.track_count > kMaxSubmissionTracks) {
    return fail(kInvalidSubmission, fmt::sprintf("trackCount %u is not from 1 to %u", s.track_count,
                                                 kMaxSubmissionTracks));
  }
  if (s.artist.empty()) return fail(kInvalidSubmission, "artist is empty");
  if (s.category.empty()) return fail(kInvalidSubmission, "category is empty");
  if (s.title.empty()) return fail(kInvalidSubmission, "title is empty");
  const auto& categories = FreedbCategories();
  if (std::find(categories.begin(), categories.end(), s.category) == categories.end()) {
    std::string list;
    for (const std::string& c : categories)
      list += (list.empty() ? "" : ", ") + c;
    return fail(kInvalidCategory, "category \"" + s.category + "\" is not one of " + list);
  }
  for (uint32_t k = 0; k < s.track_count; ++k) {
    if (s.track_title[k].empty()) {
      return fail(kInvalidSubmission, fmt::sprintf("trackTitle[%u] is empty", k));
    }
    // The last track's successor is the lead-out, stored after it.
    const uint32_t next = s.frame_offsets[k + 1];
    if (next <= s.frame_offsets[k]) {
      return fail(kInvalidSubmission,
                  fmt::sprintf("frameOffsets[%u] (%u) is not below frameOffsets[%u] (%u)", k,
                               s.frame_offsets[k], k + 1, next));
    }
    if (IsDefaultTrackTitle(s.track_title[k])) {
      return fail(kInvalidSubmission,
                  fmt::sprintf("trackTitle[%u] \"%s\" is a default title; name the track", k,
                               s.track_title[k]));
    }
  }
  return kOk;
}

std::string DefaultSubmitUrl() {
  return fmt::sprintf("http://%s/~cddb/submit.cgi", FreedbServers().front());
}

std::string DefaultSubmitAddress() {
  return "freedb-submit@freedb.org";
}

namespace detail {

std::chrono::milliseconds RequestDeadline(const SettingsStore& settings) {
  const int32_t seconds =
      settings.GetInt(kFreedbSettingsGroup, "request_deadline", kDefaultRequestDeadlineSeconds);
  return std::chrono::seconds(seconds > 0 ? seconds : kDefaultRequestDeadlineSeconds);
}

bool IsPlainAddress(std::string_view address) {
  if (address.empty() || address.size() > 254) return false;
  return std::none_of(address.begin(), address.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u <= ' ' || u == 0x7F || c == '<' || c == '>' || c == '"';
  });
}

std::string WireEntry(const DiscSubmission& submission, std::string* subject) {
  std::string entry, line;
  WriteXmcdEntry(submission, entry, subject != nullptr ? *subject : line);
  // freedb reads submissions as ISO-8859-1. The writer cut its line pieces
  // between characters, so each line keeps its length in bytes once every
  // character is one byte.
  return Utf8ToLatin1(entry);
}

}  // namespace detail

HResult SubmitEntryByHttp(const DiscSubmission& submission, const SettingsStore& settings,
                          std::string* transcript) {
  if (const HResult r = ValidateSubmission(submission); r != kOk) return r;
  const auto address =
      ParseHttpUrl(settings.GetString(kFreedbSettingsGroup, "submit_url", DefaultSubmitUrl()));
  if (!address) return kNotHttpAddress;
  const std::string email = detail::FreedbEmailAddress(settings);
  if (!detail::IsPlainAddress(email)) return kInvalidArgument;

  HttpRequest request;
  ApplyInternetSettings(LoadInternetSettings(settings), request);
  request.server = address->host;
  request.port = address->port;
  request.object = address->object;
  request.verb = "POST";
  request.deadline = detail::RequestDeadline(settings);
  request.extra_headers = fmt::sprintf(
      "Category: %s\r\nDiscid: %08x\r\nUser-Email: %s\r\n"
      "X-Cddbd-Note: submitted by DiscHive - send mail to %s\r\nSubmit-mode: submit\r\n",
      submission.category, submission.disc_id, email, kSubmissionContact);
  request.body = detail::WireEntry(submission, nullptr);
  // The answer is one short line; anything long is not the script speaking.
  request.max_body = 64 * 1024;

  const HResult r = PerformHttpRequest(request);
  if (transcript != nullptr) FormatHttpTranscript(*transcript, request);
  if (r != kOk) return r;
  if (request.status_code != 200) return kHttpStatusNotOk;
  return ScriptAnswerCode(request.response_body);
}

HResult SubmitByHttp(DiscLookupRequest& request, const SettingsStore& settings,
                     std::string* transcript) {
  return SubmitEach(request, [&](const DiscSubmission& entry) {
    return SubmitEntryByHttp(entry, settings, transcript);
  });
}

HResult SubmitByMail(DiscLookupRequest& request, const SettingsStore& settings,
                     std::string* transcript) {
  return SubmitEach(request, [&](const DiscSubmission& entry) {
    return SubmitEntryByMail(entry, settings, transcript);
  });
}

HResult SubmitByHttp(DiscLookupRequest& request) {
  return SubmitByHttp(request, *GlobalSettings());
}

HResult SubmitByMail(DiscLookupRequest& request) {
  return SubmitByMail(request, *GlobalSettings());
}

}  // namespace dischive
