// The CDDB socket protocol client and the lookup that uses it.
#include "cddb/cddbp.h"

#include <fmt/printf.h>

#include "cddb/disc_lookup.h"
#include "cddb/submission_internal.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "dischive/version.h"

namespace dischive::detail {
namespace {

// A hello word must be one word of printable characters: a blank or line end
// in the e-mail address would split the command or start another one.
std::string HelloWord(std::string_view text) {
  std::string out;
  for (const char c : text)
    out.push_back(static_cast<unsigned char>(c) <= ' ' ? '_' : c);
  return out.empty() ? "_" : out;
}

}  // namespace

int CddbpConnection::ReadCode() {
  std::string code;
  try {
    code = channel_.ReceiveExact(3);
  } catch (const ProtocolError&) {
    out_of_step_ = true;
    throw;
  }
  channel_.LogReceived(code, {});
  if (code[0] < '1' || code[0] > '5' || code[1] < '0' || code[1] > '3' || code[2] < '0' ||
      code[2] > '9') {
    out_of_step_ = true;
    throw ProtocolError{kFreedbServiceError};
  }
  return (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
}

std::string CddbpConnection::ReadBody(CommandChannel::BodyEnd end) {
  bool cut = false;
  std::string body;
  try {
    body = channel_.ReadBody(end, kBodyCapacity, &cut);
  } catch (const ProtocolError&) {
    out_of_step_ = true;
    throw;
  }
  if (cut) out_of_step_ = true;
  return DecodeFreedbText(body, text_level_);
}

void CddbpConnection::Connect(const std::string& server, uint16_t port) {
  out_of_step_ = false;
  channel_.Connect(server, port);
  const int code = ReadCode();
  channel_.SkipLine();
  if (code / 100 != 2) throw ProtocolError{kCddbpConnectRefused};
}

void CddbpConnection::Hello(const std::string& user, const std::string& host) {
  const LibraryVersion& version = GetLibraryVersion();
  channel_.Send(fmt::sprintf("cddb hello %s %s %s %d.%d\n", HelloWord(user), HelloWord(host),
                             "DiscHive", version.major, version.minor));
  const int code = ReadCode();
  channel_.SkipLine();
  if (code / 100 != 2) throw ProtocolError{kCddbpHelloRefused};
}

void CddbpConnection::SetProto(int level) {
  channel_.Send(fmt::sprintf("proto %d\n", level));
  ReadCode();
  channel_.SkipLine();
}

int CddbpConnection::Query(const DiscToc& toc, std::vector<FreedbMatch>& matches, size_t capacity) {
  matches.clear();
  channel_.Send("cddb query " + FormatQueryArguments(toc, ' ') + "\n");

  const int code = ReadCode();
  if (code / 100 != 2) {
    channel_.SkipLine();
    throw ProtocolError{kCddbpQueryRefused};
  }
  if (code == 202) {
    channel_.SkipLine();
    return kQueryNone;
  }
  // The answers share their layout with the HTTP ones: code, blank, text.
  if (code == 210 || code == 211) {
    const std::string body = ReadBody(CommandChannel::BodyEnd::kMultiLine);
    if (body.empty()) return kQueryBad;
    return ParseQueryResponse(fmt::format("{} {}", code, std::string_view(body).substr(1)), matches,
                              capacity);
  }
  if (code == 200) {
    const std::string body = ReadBody(CommandChannel::BodyEnd::kOneLine);
    if (capacity == 0) return kQueryOverflow;
    if (body.empty() || body[0] != ' ') return kQueryBad;
    return ParseQueryResponse("200" + body, matches, capacity);
  }
  channel_.SkipLine();
  return kQueryBad;
}

void CddbpConnection::Read(const std::string& category, uint32_t disc_id, XmcdKeywordMap& map) {
  map.clear();
  channel_.Send(fmt::sprintf("cddb read %s %08lx\n", HelloWord(category),
                             static_cast<unsigned long>(disc_id)));
  const int code = ReadCode();
  if (code / 100 != 2) {
    channel_.SkipLine();
    throw ProtocolError{kCddbpReadRefused};
  }
  const std::string body = ReadBody(CommandChannel::BodyEnd::kMultiLine);
  if (body.find('\n') == std::string::npos) throw ProtocolError{kFreedbServiceError};
  if (!ParseXmcdEntry(body, map)) throw ProtocolError{kFreedbServiceError};
}

void CddbpConnection::Quit() {
  channel_.Send("quit\n");
}

void CddbpConnection::Close() {
  channel_.Close();
}

namespace {

// The lookup's view of one connection: connects (again) when needed, and turns
// protocol errors into the disc's result code.
class CddbpSource : public FreedbSource {
 public:
  CddbpSource(const SettingsStore& settings, std::string* transcript)
      : server_(settings.GetString(kFreedbSettingsGroup, "cddb_server", DefaultCddbServer())),
        port_(settings.GetInt(kFreedbSettingsGroup, "cddb_port", kDefaultCddbPort)),
        proto_(FreedbProtoLevel(settings)),
        // Below level 6 the server reads ISO-8859-1.
        hello_(SplitHelloAddress(proto_ >= 6 ? FreedbEmailAddress(settings)
                                             : Utf8ToLatin1(FreedbEmailAddress(settings)))),
        timeout_seconds_(settings.GetInt(kFreedbSettingsGroup, "cddb_timeout", 30)),
        request_deadline_(RequestDeadline(settings)),
        transcript_(transcript) {}

  ~CddbpSource() override { Flush(); }

  // Connect, hello and proto; 0 or the failure.
  HResult Open() {
    if (port_ <= 0 || port_ > 65535) return kInvalidArgument;
    // The deadline runs from the start of the dialogue: connecting, the
    // greeting and the first disc share it (later discs get their own).
    connection_.channel().SetDeadline(std::chrono::steady_clock::now() + request_deadline_);
    // Receives give up after this long without data (30 s, as the platform's default).
    connection_.channel().SetReceiveTimeout(
        std::chrono::seconds(timeout_seconds_ > 0 ? timeout_seconds_ : 30));
    try {
      connection_.Connect(server_, static_cast<uint16_t>(port_));
      connection_.Hello(hello_.user, hello_.host);
      connection_.SetProto(proto_);
      connection_.set_text_level(proto_);
      return kOk;
    } catch (const ProtocolError& e) {
      connection_.Close();
      return e.code;
    }
  }

  void Finish() {
    if (connection_.channel().is_open()) {
      try {
        connection_.Quit();
      } catch (const ProtocolError&) {
        // The server went away first; closing is all that is left.
      }
    }
    connection_.Close();
    Flush();
  }

  HResult PrepareDisc() override {
    // Each disc's dialogue (connecting when needed, query and read) must end
    // within the deadline: the idle time-out alone lets a server that trickles
    // a byte now and then hold the lookup forever.
    connection_.channel().SetDeadline(std::chrono::steady_clock::now() + request_deadline_);
    // A cut body or a failed receive leaves the rest of an answer in the way.
    if (connection_.channel().is_open() && !connection_.out_of_step()) return kOk;
    connection_.Close();
    return Open();
  }

  QueryResult Query(const DiscToc& toc, std::vector<FreedbMatch>& matches,
                    size_t capacity) override {
    try {
      return {connection_.Query(toc, matches, capacity), kOk};
    } catch (const ProtocolError& e) {
      return {kQueryBad, e.code};
    }
  }

  HResult Read(const FreedbMatch& match, XmcdKeywordMap& map) override {
    try {
      connection_.Read(match.category, match.disc_id, map);
      return kOk;
    } catch (const ProtocolError& e) {
      return e.code;
    }
  }

  const std::string& server() const { return server_; }

 private:
  void Flush() {
    if (transcript_ != nullptr) {
      transcript_->append(connection_.channel().transcript());
      connection_.channel().transcript().clear();
    }
  }

  std::string server_;
  int32_t port_;
  int proto_;
  FreedbHello hello_;
  int32_t timeout_seconds_;
  std::chrono::milliseconds request_deadline_;
  std::string* transcript_;
  CddbpConnection connection_;
};

}  // namespace
}  // namespace dischive::detail

namespace dischive {

HResult LookupDiscsCddbp(DiscLookupRequest& request, const SettingsStore& settings,
                         std::string* transcript) {
  detail::CddbpSource source(settings, transcript);
  // The text comes from a language file: its "%s" is filled in by hand so that
  // a translation with other conversions cannot break the formatting.
  std::string connecting = LoadHostString(strings::kConnecting);
  if (const size_t at = connecting.find("%s"); at != std::string::npos) {
    connecting.replace(at, 2, source.server());
  }
  detail::PostProgress(request, 0, std::move(connecting));
  const HResult opened = source.Open();
  if (opened != kOk) {
    // Every disc says why it was not looked up.
    source.Finish();
    return detail::StoreResultForAll(request, opened) ? kOk : kAborted;
  }
  detail::PostProgress(request, 0, LoadHostString(strings::kLookupStarting));
  const HResult result = detail::LookupEachDisc(request, source);
  if (result == kOk) detail::PostProgress(request, 0, LoadHostString(strings::kLookupClosing));
  source.Finish();
  return result;
}

HResult LookupDiscsCddbp(DiscLookupRequest& request) {
  const std::shared_ptr<SettingsStore> settings = GlobalSettings();
  return LookupDiscsCddbp(request, *settings);
}

}  // namespace dischive
