// Disc lookup in freedb/CDDB: the table of contents of an audio CD, the disc
// description a lookup fills, xmcd entries (reading and writing), the match
// lists of a query, and the lookups over HTTP and over the CDDB socket protocol.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/catalog.h"
#include "dischive/fields.h"
#include "dischive/host.h"
#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive {

/// Most tracks a disc can have in a lookup.
inline constexpr uint32_t kMaxDiscTracks = 100;
/// Most tracks a submitted entry can have.
inline constexpr uint32_t kMaxSubmissionTracks = 99;
/// Most matches a query answer may hold.
inline constexpr size_t kMaxFreedbMatches = 256;

/// One disc of a lookup request, filled by the caller.
struct DiscToc {
  uint32_t disc_id = 0;      ///< freedb disc id
  uint32_t alt_disc_id = 0;  ///< used in the query instead of disc_id when non-zero
  uint32_t track_count = 0;  ///< at most kMaxDiscTracks
  std::array<uint32_t, kMaxDiscTracks> frame_offsets{};  ///< track starts in frames (1/75 s)
  uint32_t disc_length_seconds = 0;
};

/// The freedb disc id of a table of contents: the digit sums of the track start
/// seconds (offset / 75) modulo 255, the playing time in seconds from the first
/// track's start to `disc_length_seconds`, and the track count.
uint32_t ComputeFreedbDiscId(const uint32_t* frame_offsets, uint32_t track_count,
                             uint32_t disc_length_seconds);
inline uint32_t ComputeFreedbDiscId(const DiscToc& toc) {
  return ComputeFreedbDiscId(toc.frame_offsets.data(), toc.track_count, toc.disc_length_seconds);
}

/// A table of contents from track start offsets (frames) and the disc length in
/// seconds, with its disc id computed. nullopt, with *error set, when there are
/// no tracks, more than kMaxDiscTracks, offsets that do not rise, or a length
/// that ends before the last track starts.
std::optional<DiscToc> MakeDiscToc(const std::vector<uint32_t>& frame_offsets,
                                   uint32_t disc_length_seconds, std::string* error);
/// The same from the lead-out frame (the end of the last track, with the
/// lead-in), as a drive reports it: the disc length is the lead-out in whole
/// seconds.
std::optional<DiscToc> MakeDiscTocFromLeadOut(const std::vector<uint32_t>& frame_offsets,
                                              uint32_t lead_out_frame, std::string* error);
/// The line cd-discid prints for a table of contents: "discid n off1 ... offN seconds".
std::string FormatDiscIdLine(const DiscToc& toc);
/// The one-line form cd-discid prints: "discid ntracks off1 ... offN seconds".
/// The disc id is computed from the offsets; *stated_id receives the line's own.
std::optional<DiscToc> ParseDiscIdLine(std::string_view line, std::string* error,
                                       uint32_t* stated_id = nullptr);
/// The tracks of a cue sheet with one audio file ("INDEX 01 mm:ss:ff" of each
/// TRACK, plus the 150-frame lead-in), with the disc length given in seconds.
std::optional<DiscToc> ParseCueSheet(std::string_view text, uint32_t disc_length_seconds,
                                     std::string* error);

/// One property of a disc (index 0) or of its track n (index n).
struct MetadataEntry {
  field::FieldId field_id = 0;
  uint32_t index = 0;
  PropertyValue value;
  bool operator==(const MetadataEntry&) const = default;
};

/// The description of a disc that a lookup fills: a list of entries in the order
/// they were set. Setting a field appends; looking up takes the first entry with
/// the wanted field and index, so what was set first wins.
class DiscMetadata {
 public:
  /// The list grows by this many entries at a time.
  static constexpr size_t kGrowth = 32;

  void SetText(field::FieldId id, uint32_t index, std::string value);
  void SetInt(field::FieldId id, uint32_t index, int32_t value);
  /// The first entry with this field and index.
  const PropertyValue* Find(field::FieldId id, uint32_t index) const;
  PropertyValue* FindMutable(field::FieldId id, uint32_t index);
  /// The first text of this field and index; nullopt when absent or an integer.
  std::optional<std::string> Text(field::FieldId id, uint32_t index) const;
  /// The first integer of this field and index; nullopt when absent or text.
  std::optional<int32_t> Int(field::FieldId id, uint32_t index) const;

  const std::vector<MetadataEntry>& entries() const { return entries_; }
  size_t size() const { return entries_.size(); }
  size_t capacity() const { return entries_.capacity(); }
  void Clear() { entries_.clear(); }

  /// Two texts and three words that travel with the list (copied with it).
  std::array<std::string, 2> extra_texts;
  std::array<uint32_t, 3> extra_words{};

  bool operator==(const DiscMetadata&) const = default;

 private:
  void Append(MetadataEntry entry);
  std::vector<MetadataEntry> entries_;
};

/// What an entry for submission is written from.
struct DiscSubmission {
  std::string category;  ///< freedb category
  uint32_t disc_id = 0;
  uint32_t track_count = 0;  ///< at most kMaxSubmissionTracks
  std::string artist;
  std::string title;
  std::array<std::string, kMaxSubmissionTracks> track_artist;  ///< may be empty
  std::array<std::string, kMaxSubmissionTracks> track_title;
  std::array<std::string, kMaxSubmissionTracks> track_extended;  ///< EXTT per track
  /// Track starts in frames, then the lead-out (the frame after the last
  /// track) in the slot after the last track's.
  std::array<uint32_t, kMaxSubmissionTracks + 1> frame_offsets{};
  int32_t revision = 0;
  int32_t year = 0;
  std::string extended;  ///< EXTD
  bool has_year_and_genre = false;
  std::string genre;
  uint32_t disc_length_seconds = 0;
};

/// One entry of a submission request and, afterwards, its result (0 when the
/// server accepted it).
struct SubmissionRecord {
  DiscSubmission entry;
  HResult result = kOk;
};

/// One disc of a lookup request: its table of contents, what the lookup found
/// and the lookup's result (0 when the entry was read and applied).
struct DiscRecord {
  DiscToc toc;
  DiscMetadata metadata;
  HResult result = kOk;
};

/// The record a host shares with a lookup running on the request's own thread.
/// Every access by the lookup is made under `lock`; the host abandons the
/// request by setting `discs` to nullptr under the lock, and the lookup then
/// stops at once without touching the records again.
struct DiscLookupRequest {
  std::mutex lock;
  std::vector<DiscRecord>* discs = nullptr;  ///< the per-disc records; nullptr: abandoned
  /// For a submission: the entries to submit (used instead of `discs`);
  /// nullptr: abandoned.
  std::vector<SubmissionRecord>* submissions = nullptr;
  HostWindow* owner = nullptr;  ///< receives progress and the match choice
  /// Posted with a std::string text as payload; wparam is 0 for a single disc,
  /// else index | count << 16.
  uint32_t progress_message = 0;
  /// Sent with a MatchChoice* as payload; a zero reply means cancel.
  uint32_t choice_message = 0;
  /// For discs after the first: take the match whose artist and title equal
  /// those the disc's metadata already holds, without asking.
  bool match_by_name = false;
};

/// One line of a query answer.
struct FreedbMatch {
  uint32_t disc_id = 0;
  std::string artist;
  std::string title;
  std::string category;
  bool operator==(const FreedbMatch&) const = default;
};

/// What the host receives when it must choose: it writes the chosen index into
/// `chosen` (0xFFFFFFFF until then) and replies non-zero, or replies 0 to cancel.
struct MatchChoice {
  uint32_t count = 0;
  uint32_t chosen = 0xFFFFFFFF;
  const FreedbMatch* matches = nullptr;
};

// xmcd entries ----------------------------------------------------------------

/// Keyword to value of one entry, continuation lines joined.
using XmcdKeywordMap = std::map<std::string, std::string, std::less<>>;

/// Splits the body of a read answer (the text after the "210" code) into
/// keywords. Fails, leaving the map empty, on a line without "=" or when the
/// text ends before the "." line.
bool ParseXmcdEntry(std::string_view body, XmcdKeywordMap& map);
/// Writes the disc and track fields of an entry into `metadata`; `caller_text`
/// is stored under field::kCategory.
void ApplyXmcdToMetadata(DiscMetadata& metadata, const XmcdKeywordMap& map,
                         std::string_view caller_text, uint32_t track_count);
/// Splits "artist / title" at the first " / "; both parts trimmed.
void SplitArtistTitle(std::string_view text, std::string& artist, std::string& title);
/// Resolves the value escapes "\n" (to CR LF), "\t", "\r" (dropped) and "\\".
std::string UnescapeXmcdValue(std::string_view text);
/// Escapes tab, line feed and backslash and drops carriage returns, in one pass.
std::string EscapeXmcdValue(std::string_view text);
/// Finds a disc number (digits 1-256, or the words one..twelve) at the end of
/// an album title and cuts it off the title.
bool ParseDiscNumberSuffix(std::string& title, int& number);
/// Writes a whole entry and the mail subject "cddb <category> <disc id>".
void WriteXmcdEntry(const DiscSubmission& submission, std::string& entry, std::string& subject);

// Query and read ----------------------------------------------------------------

/// The protocol level sent by default; level 6 answers are UTF-8, level 5
/// answers ISO-8859-1.
inline constexpr int kDefaultFreedbProto = 5;

/// The user and host of the hello, from an e-mail address split at its first
/// "@" (without one the address serves as both).
struct FreedbHello {
  std::string user;
  std::string host;
};
FreedbHello SplitHelloAddress(std::string_view email_address);

/// The arguments of a query for a disc: the disc id ("%08lx"; the alternative
/// id when set), the track count, each track's offset and the disc length in
/// seconds, joined by `separator` (' ' on a socket, '+' in a URL).
std::string FormatQueryArguments(const DiscToc& toc, char separator);

/// "?cmd=cddb+query+..." for a disc.
std::string BuildQueryRequest(const DiscToc& toc, std::string_view email_address,
                              int proto = kDefaultFreedbProto);
/// "?cmd=cddb+read+<category>+<disc id>..." for an entry.
std::string BuildReadRequest(uint32_t disc_id, std::string_view category,
                             std::string_view email_address, int proto = kDefaultFreedbProto);

/// Results of ParseQueryResponse.
enum QueryOutcome : int {
  kQueryExact = 1,      ///< one exact match ("200")
  kQueryList = 2,       ///< a list ("210", "211"); may be empty
  kQueryNone = 3,       ///< the server knows no entry ("202")
  kQueryBad = -1,       ///< unparseable answer
  kQueryOverflow = -2,  ///< more matches than the capacity
};

/// Reads a query answer into `matches` (cleared first), at most `capacity` of them.
int ParseQueryResponse(std::string_view text, std::vector<FreedbMatch>& matches, size_t capacity);
/// Reads one match line "category discid artist / title" up to its line end;
/// returns the position after the line, or nullopt when the line is malformed.
std::optional<size_t> ParseMatchLine(std::string_view text, FreedbMatch& match);
/// True, with its index, when a match has exactly this artist and title.
bool FindMatchByArtistTitle(std::string_view artist, std::string_view title,
                            const std::vector<FreedbMatch>& matches, size_t& index);

// Settings (group "internet2") -------------------------------------------------

inline constexpr const char* kFreedbSettingsGroup = "internet2";
/// The freedb servers offered to the user, the general host first.
const std::vector<std::string>& FreedbServers();
/// "acquire_url": the lookup address, "http://%s/~cddb/cddb.cgi" with the first server.
std::string DefaultAcquireUrl();
/// "cddb_server" default for the socket protocol.
std::string DefaultCddbServer();
inline constexpr int kDefaultCddbPort = 8880;

// Lookups ------------------------------------------------------------------------

/// Looks every disc of the request up over HTTP (settings "acquire_url",
/// "email_address", "cddb_proto"), storing each disc's result code. Returns 0,
/// or kAborted when the host abandoned the request. `transcript`, when given,
/// receives every HTTP exchange.
HResult LookupDiscsFreedb(DiscLookupRequest& request);
HResult LookupDiscsFreedb(DiscLookupRequest& request, const SettingsStore& settings,
                          std::string* transcript = nullptr);

/// Looks every disc of the request up over the CDDB socket protocol (settings
/// "cddb_server", "cddb_port", "email_address", "cddb_proto"). A connection or
/// hello that fails is stored as the result of every disc (the host shows each
/// disc's outcome, so each one says why it was not looked up). Returns 0, or
/// kAborted when the host abandoned the request. `transcript`, when given,
/// receives the whole exchange.
HResult LookupDiscsCddbp(DiscLookupRequest& request);
HResult LookupDiscsCddbp(DiscLookupRequest& request, const SettingsStore& settings,
                         std::string* transcript = nullptr);

// Catalogue ----------------------------------------------------------------------

/// Turns a looked-up disc into an album: artist, title, genre, year, various
/// artists, revision and comments at album level, one volume with the disc id as
/// record id, and one track per entry of the table of contents with its length.
AlbumRecord AlbumFromDisc(const DiscToc& toc, const DiscMetadata& metadata);
/// Writes a looked-up disc into the catalogue: a new album, or the album that
/// already holds a volume with this disc id (merged). Returns 0 or the failure;
/// *album_id receives the album's identifier.
HResult SaveDiscToCatalog(CatalogEngine& catalog, const DiscToc& toc, const DiscMetadata& metadata,
                          std::string* album_id = nullptr);

// Submission ---------------------------------------------------------------------

/// The eleven freedb categories, in lower case as the server spells them.
const std::vector<std::string>& FreedbCategories();

/// Checks an entry before it is sent, the first failure deciding: disc id,
/// track count (1 to 99), artist, category and title (kInvalidSubmission); the
/// category's spelling (kInvalidCategory); then per track a title, an offset
/// below the next one (the last track's compared with the lead-out stored after
/// it) and a title that is not an unedited "Track <n>" (kInvalidSubmission).
/// *problem, when given, receives which field is wrong.
HResult ValidateSubmission(const DiscSubmission& submission, std::string* problem = nullptr);

/// Quoted-printable body encoding in place: CR (LF) becomes a hard line end,
/// control characters other than tab, "=" and bytes above "~" become "=XX",
/// a soft break "=\r\n" follows once a line holds more than 72 characters, and
/// a blank or tab at the end of a line is written "=20" / "=09".
void EncodeQuotedPrintable(std::string& text);

/// The host name for HELO: this machine's name with every character other than
/// a letter, digit, "_" or "." replaced by "_"; "localhost" when there is none.
std::string GetHeloName();
/// The same rule applied to a given name.
std::string HeloNameFrom(std::string_view host_name);

/// Setting defaults (group "internet2").
std::string DefaultSubmitUrl();      ///< "submit_url": the first server's submission script
std::string DefaultSubmitAddress();  ///< "smtp_submit_address": freedb's submission mailbox
inline constexpr const char* kDefaultSmtpServer = "localhost";  ///< "smtp_server"
inline constexpr int kDefaultSmtpPort = 25;                     ///< "smtp_server_port"
/// "request_deadline": seconds one whole exchange may take.
inline constexpr int kDefaultRequestDeadlineSeconds = 120;
/// The product's contact address in the "X-Cddbd-Note" line.
inline constexpr const char* kSubmissionContact = "support@brightfern.example";

/// Validates, writes and posts one entry to "submit_url" with the user's
/// "email_address". 0 when the script answered 200, else kInvalidSubmission /
/// kInvalidCategory, kNotHttpAddress, a transport error, kHttpStatusNotOk,
/// kSubmitScript500, kSubmitScript501 or kFreedbServiceError. `transcript`,
/// when given, receives the exchange.
HResult SubmitEntryByHttp(const DiscSubmission& submission, const SettingsStore& settings,
                          std::string* transcript = nullptr);
/// Validates, writes and mails one entry through "smtp_server" to
/// "smtp_submit_address". 0 when the server took the message, else a
/// validation code or the code of the SMTP step that failed.
HResult SubmitEntryByMail(const DiscSubmission& submission, const SettingsStore& settings,
                          std::string* transcript = nullptr);

/// Submits every entry of `request.submissions` by HTTP or mail, storing each
/// entry's result and posting progress. Returns 0, or kAborted when the host
/// abandoned the request.
HResult SubmitByHttp(DiscLookupRequest& request);
HResult SubmitByHttp(DiscLookupRequest& request, const SettingsStore& settings,
                     std::string* transcript = nullptr);
HResult SubmitByMail(DiscLookupRequest& request);
HResult SubmitByMail(DiscLookupRequest& request, const SettingsStore& settings,
                     std::string* transcript = nullptr);

}  // namespace dischive
