// The freedb query and read requests and the answers to a query.
//
// Query answers (CDDB protocol, levels 5 and 6):
//   200 categ discid dtitle             one exact match
//   210 Found exact matches, list follows (until terminating `.')
//   211 Found inexact matches, list follows (until terminating `.')
//   202 No match found
// each list line being "categ discid dtitle" with dtitle "artist / title".
#include <fmt/printf.h>

#include "dischive/cddb.h"
#include "dischive/codec.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "dischive/version.h"
#include "util/parse.h"

namespace dischive {
namespace {

std::string HelloText(std::string_view email_address, int proto) {
  // Below level 6 the server reads ISO-8859-1.
  const FreedbHello hello =
      SplitHelloAddress(proto >= 6 ? std::string(email_address) : Utf8ToLatin1(email_address));
  const LibraryVersion& version = GetLibraryVersion();
  // The hello travels inside a query string: a "+" or "&" in the address must
  // not turn into a blank or a new parameter.
  return fmt::sprintf("%s+%s+%s+%d.%d", PercentEncode(hello.user), PercentEncode(hello.host),
                      "DiscHive", version.major, version.minor);
}

}  // namespace

FreedbHello SplitHelloAddress(std::string_view email_address) {
  const size_t at = email_address.find('@');
  if (at == std::string_view::npos) {
    return {std::string(email_address), std::string(email_address)};
  }
  return {std::string(email_address.substr(0, at)), std::string(email_address.substr(at + 1))};
}

std::string FormatQueryArguments(const DiscToc& toc, char separator) {
  const uint32_t id = toc.alt_disc_id != 0 ? toc.alt_disc_id : toc.disc_id;
  const uint32_t tracks = toc.track_count < kMaxDiscTracks ? toc.track_count : kMaxDiscTracks;
  std::string out = fmt::sprintf("%08lx%c%d", static_cast<unsigned long>(id), separator, tracks);
  for (uint32_t k = 0; k < tracks; ++k)
    out += fmt::sprintf("%c%d", separator, toc.frame_offsets[k]);
  out += fmt::sprintf("%c%d", separator, toc.disc_length_seconds);
  return out;
}

std::string BuildQueryRequest(const DiscToc& toc, std::string_view email_address, int proto) {
  return "?cmd=cddb+query+" + FormatQueryArguments(toc, '+') +
         fmt::sprintf("&hello=%s&proto=%d", HelloText(email_address, proto), proto);
}

std::string BuildReadRequest(uint32_t disc_id, std::string_view category,
                             std::string_view email_address, int proto) {
  return fmt::sprintf("?cmd=cddb+read+%s+%08lx&hello=%s&proto=%d", PercentEncode(category),
                      static_cast<unsigned long>(disc_id), HelloText(email_address, proto), proto);
}

std::optional<size_t> ParseMatchLine(std::string_view text, FreedbMatch& match) {
  const size_t lf = text.find('\n');
  if (lf == std::string_view::npos) return std::nullopt;
  std::string_view line = text.substr(0, lf);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);

  const size_t blank = line.find(' ');
  if (blank == std::string_view::npos || blank == 0) return std::nullopt;
  const std::string_view category = line.substr(0, blank);
  std::string_view rest = line.substr(blank + 1);
  const size_t id_end = rest.find(' ');
  const auto id = ParseHex32(rest.substr(0, id_end));
  if (!id) return std::nullopt;
  const std::string_view dtitle =
      id_end == std::string_view::npos ? std::string_view() : rest.substr(id_end + 1);

  std::string_view artist = dtitle, title = dtitle;
  size_t separator = dtitle.find(" / ");
  size_t separator_length = 3;
  if (separator == std::string_view::npos) {
    separator = dtitle.find('/');
    separator_length = 1;
  }
  if (separator != std::string_view::npos) {
    artist = TrimBlanks(dtitle.substr(0, separator));
    title = TrimBlanks(dtitle.substr(separator + separator_length));
  }
  if (artist.empty()) artist = title;
  if (title.empty()) title = artist;

  match.category = category;
  match.disc_id = *id;
  match.artist =
      artist.empty() ? LoadHostString(strings::kFreedbUnknownArtist) : std::string(artist);
  match.title = title;
  return lf + 1;
}

int ParseQueryResponse(std::string_view text, std::vector<FreedbMatch>& matches, size_t capacity) {
  matches.clear();
  const std::string_view code = text.substr(0, 4);
  if (code == "202 ") return kQueryNone;
  if (code == "200 ") {
    if (capacity == 0) return kQueryOverflow;
    FreedbMatch match;
    if (!ParseMatchLine(text.substr(4), match)) return kQueryBad;
    matches.push_back(std::move(match));
    return kQueryExact;
  }
  if (code != "210 " && code != "211 ") return kQueryBad;

  size_t pos = text.find('\n');
  if (pos == std::string_view::npos) return kQueryBad;
  ++pos;
  for (;;) {
    if (pos < text.size() && text[pos] == '.') return kQueryList;
    if (matches.size() >= capacity) {
      matches.clear();
      return kQueryOverflow;
    }
    FreedbMatch match;
    const auto used = ParseMatchLine(text.substr(pos), match);
    if (!used) {
      matches.clear();
      return kQueryBad;
    }
    pos += *used;
    matches.push_back(std::move(match));
  }
}

bool FindMatchByArtistTitle(std::string_view artist, std::string_view title,
                            const std::vector<FreedbMatch>& matches, size_t& index) {
  for (size_t i = 0; i < matches.size(); ++i) {
    if (matches[i].artist == artist && matches[i].title == title) {
      index = i;
      return true;
    }
  }
  return false;
}

// The public freedb-compatible service today is gnudb: its general host first,
// then its second name, then the dBpoweramp mirror. Fewer than the twelve slots
// of the options page are filled: no other public mirrors remain.
const std::vector<std::string>& FreedbServers() {
  static const std::vector<std::string> servers = {
      "gnudb.gnudb.org",
      "gnudb.org",
      "freedb.dbpoweramp.com",
  };
  return servers;
}

std::string DefaultAcquireUrl() {
  return fmt::sprintf("http://%s/~cddb/cddb.cgi", FreedbServers().front());
}

std::string DefaultCddbServer() {
  return FreedbServers().front();
}

}  // namespace dischive
