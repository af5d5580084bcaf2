// The collection document, written album by album through XmlStreamWriter.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <system_error>

#include "dischive/codec.h"
#include "dischive/collection.h"
#include "dischive/cover.h"
#include "dischive/date.h"
#include "dischive/errors.h"
#include "platform/replace_file.h"
#include "util/frame_time.h"
#include "util/parse.h"
#include "util/xdg.h"

namespace dischive {
namespace {

namespace f = field;

// Cover hashes remembered by one writer before the memory is given back.
constexpr size_t kMaxRememberedCovers = 65536;

// A short formatted value kept on the stack (numbers, times, hex); the
// document formats millions of them, so this avoids both the heap and a
// format-string parser.
class Value {
 public:
  operator std::string_view() const { return {data_.data(), size_}; }

  Value& Number(uint64_t value) {
    size_ = static_cast<size_t>(
        std::to_chars(data_.data() + size_, data_.data() + data_.size(), value).ptr - data_.data());
    return *this;
  }
  Value& Signed(int64_t value) {
    if (value < 0) {
      Char('-');
      return Number(static_cast<uint64_t>(0) - static_cast<uint64_t>(value));
    }
    return Number(static_cast<uint64_t>(value));
  }
  Value& TwoDigits(uint64_t value) {
    Char(static_cast<char>('0' + value / 10 % 10));
    return Char(static_cast<char>('0' + value % 10));
  }
  Value& Char(char c) {
    data_[size_++] = c;
    return *this;
  }

 private:
  std::array<char, 40> data_;
  size_t size_ = 0;
};

// "%08X"
Value Hex8(uint32_t value) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  Value v;
  for (int shift = 28; shift >= 0; shift -= 4)
    v.Char(kDigits[(value >> shift) & 0xF]);
  return v;
}

Value Decimal(int64_t value) {
  return Value().Signed(value);
}

// "%02d" of a track number.
Value TrackNumber(uint32_t number) {
  return number < 10 ? Value().Char('0').Number(number) : Value().Number(number);
}

// Money is stored in hundredths: "%u.%02u".
Value Money(uint32_t hundredths) {
  return Value().Number(hundredths / 100).Char('.').TwoDigits(hundredths % 100);
}

// The text of a text property without copying it; "" when absent or a number.
std::string_view TextOf(const PropertySet& properties, f::FieldId id) {
  const PropertyValue* value = properties.Find(id);
  if (value == nullptr) return {};
  const std::string* text = std::get_if<std::string>(value);
  return text != nullptr ? std::string_view(*text) : std::string_view();
}

// A file size: stored as decimal text (sizes pass 2 GiB), or as a number from
// older records; "" when absent, zero or not a number.
Value FileSize(const PropertyValue* value) {
  if (value == nullptr) return Value();
  if (const int32_t* number = std::get_if<int32_t>(value)) {
    return *number != 0 ? Value().Number(static_cast<uint32_t>(*number)) : Value();
  }
  const std::string& text = std::get<std::string>(*value);
  const std::optional<uint64_t> size = ParseDecimal(text);
  if (!size || *size == 0) return Value();
  return Value().Number(*size);
}

uint32_t Unsigned(const PropertySet& properties, f::FieldId id) {
  return static_cast<uint32_t>(properties.Int(id));
}

struct NamedField {
  const char* name;
  f::FieldId id;
};

constexpr NamedField kAlbumFlags[] = {
    {"IsSingle", f::kIsSingle},
    {"IsCompilation", f::kIsCompilation},
    {"IsSoundtrack", f::kIsSoundtrack},
    {"IsBootleg", f::kIsBootleg},
    {"IsPromo", f::kIsPromo},
    {"IsPrivate", f::kIsPrivate},
    {"IsRare", f::kIsRare},
};

// Volume and track flags in writing order; "Bitrate" is a number, the rest are
// written "1".
constexpr NamedField kTrackFlags[] = {
    {"Mono", f::kMono},
    {"Live", f::kLive},
    {"Instrumental", f::kInstrumental},
    {"Interview", f::kInterview},
    {"Multichannel", f::kMultichannel},
    {"StereoMultichannelHybrid", f::kStereoMultichannelHybrid},
    {"HighResolution", f::kHighResolution},
    {"HighNormalResolutionHybrid", f::kHighNormalResolutionHybrid},
    {"Remastered", f::kRemastered},
    {"Bitrate", f::kBitrate},
    {"Bool1", f::kBool[0]},
    {"Bool2", f::kBool[1]},
    {"Bool3", f::kBool[2]},
    {"Bool4", f::kBool[3]},
    {"Bool5", f::kBool[4]},
    {"Bool6", f::kBool[5]},
    {"Bool7", f::kBool[6]},
    {"Bool8", f::kBool[7]},
    {"Bool9", f::kBool[8]},
    {"Bool10", f::kBool[9]},
};
constexpr size_t kTrackFlagCount = std::size(kTrackFlags);

bool IsBitrate(const NamedField& field) {
  return field.id == f::kBitrate;
}

// Children of "Track", in writing order ("File" follows them).
enum class Kind : uint8_t { kText, kCData, kDate, kNumber };
struct TrackChild {
  const char* name;
  f::FieldId id;
  Kind kind;
};
constexpr TrackChild kTrackChildren[] = {
    {"Artist", f::kArtist, Kind::kText},
    {"Composer", f::kComposer, Kind::kText},
    {"Title", f::kTrackTitle, Kind::kText},
    {"Comment", f::kComment, Kind::kCData},
    {"FreeDBComment", f::kFreedbComment, Kind::kCData},
    {"Keywords", f::kKeywords, Kind::kText},
    {"ReviewCredit", f::kReviewCredit, Kind::kText},
    {"Text1", f::kText[0], Kind::kText},
    {"Text2", f::kText[1], Kind::kText},
    {"Text3", f::kText[2], Kind::kText},
    {"Text4", f::kText[3], Kind::kText},
    {"Text5", f::kText[4], Kind::kText},
    {"Text6", f::kText[5], Kind::kText},
    {"Text7", f::kText[6], Kind::kText},
    {"Text8", f::kText[7], Kind::kText},
    {"Text9", f::kText[8], Kind::kText},
    {"Text10", f::kText[9], Kind::kText},
    {"Date1", f::kDate[0], Kind::kDate},
    {"Date2", f::kDate[1], Kind::kDate},
    {"Date3", f::kDate[2], Kind::kDate},
    {"Date4", f::kDate[3], Kind::kDate},
    {"Date5", f::kDate[4], Kind::kDate},
    {"Memo1", f::kMemo[0], Kind::kCData},
    {"Memo2", f::kMemo[1], Kind::kCData},
    {"Memo3", f::kMemo[2], Kind::kCData},
    {"Memo4", f::kMemo[3], Kind::kCData},
    {"Memo5", f::kMemo[4], Kind::kCData},
    {"RecDate", f::kRecDate, Kind::kDate},
    {"RecSource", f::kRecSource, Kind::kText},
    {"RecGeneration", f::kRecGeneration, Kind::kText},
    {"RecQuality", f::kRecQuality, Kind::kText},
    {"RecTour", f::kRecTour, Kind::kText},
    {"RecCity", f::kRecCity, Kind::kText},
    {"RecCountry", f::kRecCountry, Kind::kText},
    {"RecVenue", f::kRecVenue, Kind::kText},
    {"RecStudio", f::kRecStudio, Kind::kText},
    {"SPARS", f::kSpars, Kind::kText},
    {"Lyrics", f::kLyrics, Kind::kCData},
    {"Rating", f::kTrackRating, Kind::kNumber},
};

// A track's fields by slot, found with one pass over its properties instead
// of a map search per field (a track is asked for some 60 fields, and most
// are absent). Slots: the flags of kTrackFlags, then BPM, file path and size,
// then the children of kTrackChildren.
constexpr size_t kBpmSlot = kTrackFlagCount;
constexpr size_t kPathSlot = kBpmSlot + 1;
constexpr size_t kSizeSlot = kBpmSlot + 2;
constexpr size_t kFirstChildSlot = kBpmSlot + 3;
constexpr size_t kTrackSlotCount = kFirstChildSlot + std::size(kTrackChildren);

struct SlotOfField {
  f::FieldId id;
  uint8_t slot;
};
constexpr std::array<SlotOfField, kTrackSlotCount> kTrackSlots = [] {
  std::array<SlotOfField, kTrackSlotCount> slots{};
  for (size_t i = 0; i < kTrackFlagCount; ++i) {
    slots[i] = {kTrackFlags[i].id, static_cast<uint8_t>(i)};
  }
  slots[kBpmSlot] = {f::kBpm, static_cast<uint8_t>(kBpmSlot)};
  slots[kPathSlot] = {f::kFilePath, static_cast<uint8_t>(kPathSlot)};
  slots[kSizeSlot] = {f::kFileSize, static_cast<uint8_t>(kSizeSlot)};
  for (size_t i = 0; i < std::size(kTrackChildren); ++i) {
    slots[kFirstChildSlot + i] = {kTrackChildren[i].id, static_cast<uint8_t>(kFirstChildSlot + i)};
  }
  std::sort(slots.begin(), slots.end(),
            [](const SlotOfField& a, const SlotOfField& b) { return a.id < b.id; });
  return slots;
}();
static_assert(kTrackSlotCount < 256);

class TrackFields {
 public:
  explicit TrackFields(const PropertySet& properties) {
    for (const auto& [id, value] : properties.values()) {
      const auto it = std::lower_bound(
          kTrackSlots.begin(), kTrackSlots.end(), id,
          [](const SlotOfField& entry, f::FieldId wanted) { return entry.id < wanted; });
      if (it != kTrackSlots.end() && it->id == id) slots_[it->slot] = &value;
    }
  }
  const PropertyValue* Raw(size_t slot) const { return slots_[slot]; }
  int32_t Int(size_t slot) const {
    const int32_t* value = slots_[slot] != nullptr ? std::get_if<int32_t>(slots_[slot]) : nullptr;
    return value != nullptr ? *value : 0;
  }
  std::string_view Text(size_t slot) const {
    const std::string* text =
        slots_[slot] != nullptr ? std::get_if<std::string>(slots_[slot]) : nullptr;
    return text != nullptr ? std::string_view(*text) : std::string_view();
  }

 private:
  std::array<const PropertyValue*, kTrackSlotCount> slots_{};
};

constexpr const char* kCreditListNames[kCreditListCount] = {
    "Musicians", "GuestMusicians", "Production", "Credits", "ArtworkCredits"};

struct UserListNames {
  const char* list;
  const char* item;
};
// In the order of kUserListKeys.
constexpr UserListNames kUserListNames[std::size(kUserListKeys)] = {
    {"Formats", "Format"},         {"Categories", "Category"}, {"Genres", "Genre"},
    {"Statuses", "Status"},        {"Locations", "Location"},  {"Sources", "Source"},
    {"Generations", "Generation"}, {"Qualities", "Quality"},   {"Conditions", "Condition"},
    {"Packagings", "Packaging"},
};

}  // namespace

// Writes one document's elements; the owner keeps what outlives a document.
class CollectionWriter::DocumentWriter {
 public:
  DocumentWriter(CollectionWriter& owner, XmlStreamWriter& xml) : owner_(owner), xml_(xml) {}

  void Album(const AlbumRecord& album);
  void ArtistDictionary();
  void UserLists();

 private:
  void Text(const char* name, std::string_view text) {
    if (!text.empty()) xml_.WriteTextElement(name, text);
  }
  void CData(const char* name, std::string_view text) {
    if (!text.empty()) xml_.WriteCDataElement(name, text);
  }
  void Date(const char* name, uint32_t packed) {
    if (packed == 0) return;
    XmlElementScope scope(xml_, name);
    scope.Attribute("Encoded", Hex8(packed)).Open();
    xml_.WriteText(FormatDate(packed));
  }
  void Names(const char* list, const char* item, const std::vector<std::string>& names,
             bool various);
  void AlbumAttributes(XmlElementScope& scope, const AlbumRecord& album);
  void AlbumFields(const AlbumRecord& album);
  void Artwork(const AlbumRecord& album);
  void Lineup(const AlbumRecord& album);
  void CreditLists(const AlbumRecord& album);
  void Volume(const VolumeRecord& volume);
  void Track(const TrackRecord& track, const TrackFields& fields,
             const std::array<bool, kTrackFlagCount>& common);

  CollectionWriter& owner_;
  XmlStreamWriter& xml_;
  std::vector<TrackFields> track_fields_;  // of the volume being written, reused
};

void CollectionWriter::DocumentWriter::Album(const AlbumRecord& album) {
  XmlElementScope scope(xml_, "Album");
  AlbumAttributes(scope, album);
  scope.Open();
  AlbumFields(album);
  Artwork(album);
  Lineup(album);
  CreditLists(album);
  XmlElementScope volumes(xml_, "Volumes");
  volumes.Open();
  for (const VolumeRecord& volume : album.volumes)
    Volume(volume);
}

void CollectionWriter::DocumentWriter::AlbumAttributes(XmlElementScope& scope,
                                                       const AlbumRecord& album) {
  // Creation time: the smallest over the volumes, where a volume without one
  // starts the search again from the next volume.
  uint32_t created = 0;
  uint32_t played = 0;
  uint64_t frames = 0;
  for (const VolumeRecord& volume : album.volumes) {
    if (volume.created == 0 || created == 0 || volume.created < created) created = volume.created;
    played = std::max(played, volume.played);
    if (volume.frames != kUnknownFrames) frames += volume.frames;
  }
  const PropertySet& p = album.properties;
  scope.Attribute("ID", album.id).Attribute("Modified", Hex8(album.modified));
  if (created != 0) scope.Attribute("Created", Hex8(created));
  if (played != 0) scope.Attribute("Played", Hex8(played));
  if (p.Int(f::kIsClassical) == 1) scope.Attribute("IsClassical", "1");
  for (const NamedField& flag : kAlbumFlags) {
    if (p.Int(flag.id) != 0) scope.Attribute(flag.name, "1");
  }
  if (p.Int(f::kInCollection, 1) == 0) scope.Attribute("InCollection", "0");
  if (!album.volumes.empty()) {
    // The disc id of a CD carries its track count in the low byte.
    const uint32_t disc_id = album.volumes.front().record_id;
    const uint32_t tracks = disc_id & 0xFF;
    if (tracks >= 1 && tracks <= 99) scope.Attribute("CDDBID", Hex8(disc_id));
  }
  if (const uint32_t mci = Unsigned(p, f::kMciId); mci != 0) scope.Attribute("MCIID", Hex8(mci));
  if (const int32_t icon = p.Int(f::kIcon); icon != 0) scope.Attribute("Icon", Decimal(icon));
  if (frames != 0) {
    scope.Attribute("Frames", Decimal(static_cast<int64_t>(frames)));
    scope.Attribute("Time", FrameTime(frames, TimeStyle::kHours));
  }
}

void CollectionWriter::DocumentWriter::Names(const char* list, const char* item,
                                             const std::vector<std::string>& names, bool various) {
  if (names.empty() && !various) return;
  XmlElementScope scope(xml_, list);
  if (various) scope.Attribute("Various", "1");
  scope.Open();
  for (const std::string& name : names)
    xml_.WriteTextElement(item, name);
}

void CollectionWriter::DocumentWriter::AlbumFields(const AlbumRecord& album) {
  const PropertySet& p = album.properties;
  Names("Artists", "Artist", album.artists, album.various_artists);
  Names("Composers", "Composer", album.composers, album.various_composers);
  xml_.WriteTextElement("Title", TextOf(p, f::kTitle));
  Text("Year", TextOf(p, f::kYear));
  const std::string_view genre = TextOf(p, f::kGenre), genre2 = TextOf(p, f::kGenre2);
  if (!genre.empty() || !genre2.empty()) {
    XmlElementScope genres(xml_, "Genres");
    genres.Open();
    Text("Genre", genre);
    Text("Genre", genre2);
  }
  Text("Category", TextOf(p, f::kCategory));
  Text("Format", TextOf(p, f::kFormat));
  if (const int32_t rating = p.Int(f::kRating); rating != 0) Text("Rating", Decimal(rating));
  CData("Comment", TextOf(p, f::kComment));
  CData("FreeDBComment", TextOf(p, f::kFreedbComment));
  Text("RefNo", TextOf(p, f::kRefNo));
  Text("UPC", TextOf(p, f::kUpc));
  Text("ASIN", TextOf(p, f::kAsin));
  Date("ReleaseDate", Unsigned(p, f::kReleaseDate));
  Text("Label", TextOf(p, f::kLabel));
  Text("CatalogNo", TextOf(p, f::kCatalogNo));
  Text("Country", TextOf(p, f::kCountry));
  Text("Company", TextOf(p, f::kCompany));
  Text("ReissueLabel", TextOf(p, f::kReissueLabel));
  Date("ReissueDate", Unsigned(p, f::kReissueDate));
  Text("Distributor", TextOf(p, f::kDistributor));
  if (const uint32_t price = Unsigned(p, f::kPrice); price != 0) Text("Price", Money(price));
  if (const uint32_t price = Unsigned(p, f::kOriginalPrice); price != 0) {
    Text("OriginalPrice", Money(price));
  }
  Text("Store", TextOf(p, f::kStore));
  Text("Location", TextOf(p, f::kLocation));
  Text("Status", TextOf(p, f::kStatus));
  Text("Borrower", TextOf(p, f::kBorrower));
  Date("CheckinDate", Unsigned(p, f::kCheckinDate));
  Date("CheckoutDate", Unsigned(p, f::kCheckoutDate));
  Text("Packaging", TextOf(p, f::kPackaging));
  Text("Condition", TextOf(p, f::kCondition));
}

void CollectionWriter::DocumentWriter::Artwork(const AlbumRecord& album) {
  const PropertySet& p = album.properties;
  XmlElementScope scope(xml_, "Artwork");
  const std::string_view asin = TextOf(p, f::kAsin);
  const std::string_view server = TextOf(p, f::kAmazonServer);
  size_t server_index = 0;  // 1-based; 0 = not a configured server
  if (!asin.empty() && !server.empty()) {
    const std::vector<std::string>& servers = owner_.options_.amazon_servers;
    for (size_t i = 0; i < servers.size() && server_index == 0; ++i) {
      if (EqualsIgnoreCase(servers[i], server)) server_index = i + 1;
    }
  }
  if (server_index != 0) {
    scope.Attribute("Server", Decimal(static_cast<int64_t>(server_index))).Attribute("ASIN", asin);
    if (p.Int(f::kAmazonClassical) != 0) scope.Attribute("Classical", "1");
  } else {
    const std::string hash = owner_.CoverHashFor(album);
    if (!hash.empty()) ++owner_.stats_.covers;
    scope.Attribute("Hash", hash);
  }
  if (const int32_t pages = p.Int(f::kBookletPages); pages > 0) {
    scope.Attribute("BookletPages", Decimal(pages));
  }
  // Deferred: without attributes the element is left out.
  scope.Open(true);
}

void CollectionWriter::DocumentWriter::Lineup(const AlbumRecord& album) {
  if (album.lineup.empty()) return;
  XmlElementScope lineup(xml_, "Lineup");
  lineup.Open();
  for (const LineupMember& member : album.lineup) {
    XmlElementScope person(xml_, "Person");
    person.Open();
    xml_.WriteTextElement("Name", member.name);
    Text("Role", member.role);
    Text("Period", member.period);
  }
}

void CollectionWriter::DocumentWriter::CreditLists(const AlbumRecord& album) {
  for (int list = 0; list < kCreditListCount; ++list) {
    const std::vector<Credit>& credits = album.credits[list];
    if (credits.empty()) continue;
    XmlElementScope scope(xml_, kCreditListNames[list]);
    scope.Open();
    for (const Credit& credit : credits) {
      XmlElementScope entry(xml_, "Credit");
      entry.Open();
      xml_.WriteTextElement("Name", credit.name);
      Text("Role", credit.role);
    }
  }
}

void CollectionWriter::DocumentWriter::Volume(const VolumeRecord& volume) {
  XmlElementScope scope(xml_, "Volume");
  scope.Attribute("Title", volume.title).Attribute("ID", Hex8(volume.record_id));
  if (volume.frames != 0 && volume.frames != kUnknownFrames) {
    scope.Attribute("Frames", Decimal(volume.frames))
        .Attribute("Time", FrameTime(volume.frames, TimeStyle::kHours));
  }
  scope.Open();

  // "Common": the track flags (and bit rate) that every track has with the
  // same non-zero value; they are then left off the tracks.
  std::vector<TrackFields>& fields = track_fields_;
  fields.clear();
  for (const TrackRecord& track : volume.tracks)
    fields.emplace_back(track.properties);
  std::array<bool, kTrackFlagCount> common{};
  {
    XmlElementScope common_scope(xml_, "Common");
    for (size_t i = 0; i < kTrackFlagCount && !fields.empty(); ++i) {
      const int32_t first = fields.front().Int(i);
      if (first == 0) continue;
      bool same = true;
      for (const TrackFields& track : fields) {
        if (track.Int(i) != first) {
          same = false;
          break;
        }
      }
      if (!same) continue;
      common[i] = true;
      common_scope.Attribute(kTrackFlags[i].name,
                             IsBitrate(kTrackFlags[i]) ? std::string_view(Decimal(first)) : "1");
    }
    common_scope.Open(true);
  }

  for (const NamedField& flag : kTrackFlags) {
    const int32_t value = volume.properties.Int(flag.id);
    if (value != 0) Text(flag.name, IsBitrate(flag) ? std::string_view(Decimal(value)) : "1");
  }

  XmlElementScope tracks(xml_, "Tracks");
  tracks.Open();
  for (size_t i = 0; i < volume.tracks.size(); ++i)
    Track(volume.tracks[i], fields[i], common);
}

void CollectionWriter::DocumentWriter::Track(const TrackRecord& track, const TrackFields& fields,
                                             const std::array<bool, kTrackFlagCount>& common) {
  XmlElementScope scope(xml_, "Track");
  scope.Attribute("Number", TrackNumber(track.number));
  if (track.frames != 0 && track.frames != kUnknownFrames) {
    scope.Attribute("Frames", Decimal(track.frames))
        .Attribute("Time", FrameTime(track.frames, TimeStyle::kMinutes));
  }
  if (const int32_t bpm = fields.Int(kBpmSlot); bpm != 0) scope.Attribute("BPM", Decimal(bpm));
  for (size_t i = 0; i < kTrackFlagCount; ++i) {
    const int32_t value = fields.Int(i);
    if (common[i] || value == 0) continue;
    scope.Attribute(kTrackFlags[i].name,
                    IsBitrate(kTrackFlags[i]) ? std::string_view(Decimal(value)) : "1");
  }
  scope.Open();

  for (size_t i = 0; i < std::size(kTrackChildren); ++i) {
    const TrackChild& child = kTrackChildren[i];
    const size_t slot = kFirstChildSlot + i;
    switch (child.kind) {
      case Kind::kText:
        Text(child.name, fields.Text(slot));
        break;
      case Kind::kCData:
        CData(child.name, fields.Text(slot));
        break;
      case Kind::kDate:
        Date(child.name, static_cast<uint32_t>(fields.Int(slot)));
        break;
      case Kind::kNumber:
        if (const int32_t value = fields.Int(slot); value != 0) Text(child.name, Decimal(value));
        break;
    }
  }
  if (const std::string_view path = fields.Text(kPathSlot); !path.empty()) {
    XmlElementScope file(xml_, "File");
    file.Attribute("Size", FileSize(fields.Raw(kSizeSlot)));
    file.Open();
    xml_.WriteTextElement("Path", path);
  }
}

void CollectionWriter::DocumentWriter::ArtistDictionary() {
  XmlElementScope scope(xml_, "Artists");
  scope.Attribute("Modified", Hex8(owner_.catalog_.ArtistsModified())).Open();
  for (const ArtistEntry& artist : owner_.catalog_.Artists()) {
    XmlElementScope entry(xml_, "Artist");
    entry.Attribute(artist.is_band ? "IsBand" : "IsPerson", "1").Open();
    xml_.WriteTextElement("Name", artist.name);
    Text("SortName", artist.sort_name);
    if (!artist.alt_names.empty()) {
      XmlElementScope alt(xml_, "AltNames");
      alt.Open();
      for (const std::string& name : artist.alt_names)
        Text("AltName", name);
    }
    Text("Country", artist.country);
    Date("DateFormed", artist.date_formed);
    Date("DateDisbanded", artist.date_disbanded);
    if (!artist.links.empty()) {
      XmlElementScope links(xml_, "Links");
      links.Open();
      for (const ArtistLink& link : artist.links) {
        XmlElementScope one(xml_, "Link");
        one.Open();
        xml_.WriteTextElement("Name", link.name);
        Text("Description", link.description);
      }
    }
  }
}

void CollectionWriter::DocumentWriter::UserLists() {
  for (size_t i = 0; i < std::size(kUserListKeys); ++i) {
    const std::string_view key = kUserListKeys[i];
    XmlElementScope list(xml_, kUserListNames[i].list);
    list.Attribute("Modified", Hex8(owner_.catalog_.UserListTimestamp(key))).Open();
    const std::string text = owner_.catalog_.UserList(key);
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      Text(kUserListNames[i].item, std::string_view(text).substr(start, end - start));
      start = end + 1;
    }
  }
}

std::vector<std::string> ConfiguredAmazonServers(const SettingsStore& settings) {
  const std::string text =
      settings.GetString("AmazonSearch", "Servers",
                         "webservices.amazon.com;webservices.amazon.co.uk;webservices.amazon.de;"
                         "webservices.amazon.co.jp;webservices.amazon.fr;webservices.amazon.ca");
  std::vector<std::string> servers;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(';', start);
    if (end == std::string::npos) end = text.size();
    const std::string_view entry = TrimBlanks(std::string_view(text).substr(start, end - start));
    if (!entry.empty()) servers.emplace_back(entry);
    start = end + 1;
  }
  return servers;
}

std::filesystem::path DefaultCoverCacheFolder() {
  return UserFolder(XdgHome::kCache) / "covers";
}

CollectionWriter::CollectionWriter(CatalogEngine& catalog, CollectionOptions options)
    : catalog_(catalog), options_(std::move(options)) {}

CollectionWriter::~CollectionWriter() = default;

std::string CollectionWriter::CoverHashFor(const AlbumRecord& album) {
  std::optional<std::string> stored;
  for (const VolumeRecord& volume : album.volumes) {
    stored = catalog_.ReadCover(volume.record_id);
    if (stored && !stored->empty()) break;
    stored.reset();
  }
  if (!stored) return {};

  const std::string key = Md5Hex(*stored);
  const std::filesystem::path& dir = options_.cover_cache_dir;
  if (const auto it = cover_hashes_.find(key); it != cover_hashes_.end()) {
    // Processed before; done unless its cache file has gone since.
    std::error_code ec;
    if (it->second.empty() || dir.empty() ||
        std::filesystem::exists(dir / (it->second + ".jpg"), ec)) {
      return it->second;
    }
  }

  const PreparedCover cover = PrepareCover(*stored);
  std::string hash;
  if (cover.outcome != CoverOutcome::kScalingFailed) {
    hash = CoverHash(cover.bytes);
    if (!dir.empty()) {
      const std::filesystem::path file = dir / (hash + ".jpg");
      std::error_code ec;
      if (!std::filesystem::exists(file, ec)) {
        // Replaced as a whole so that a reader never sees a partial file.
        std::filesystem::create_directories(dir, ec);
        if (platform::ReplaceFile(file, cover.bytes) == kOk) {
          ++stats_.covers_stored;
        } else {
          ++stats_.cover_store_errors;
        }
      }
    }
  }
  if (cover_hashes_.size() >= kMaxRememberedCovers) cover_hashes_.clear();
  cover_hashes_.emplace(key, hash);
  return hash;
}

HResult CollectionWriter::Write(XmlOutput& output, const CollectionProgress& progress) {
  stats_ = {};
  XmlStreamWriter xml(output, CodePage::kUtf8);
  DocumentWriter document(*this, xml);
  XmlElementScope collection(xml, "Collection");
  collection.Attribute("Version", "1.0").Open();
  {
    XmlElementScope albums(xml, "Albums");
    albums.Open();
    const size_t total = catalog_.AlbumCount();
    bool cancelled = false;
    const HResult result = catalog_.ForEachAlbum([&](const AlbumRecord& album) {
      document.Album(album);
      ++stats_.albums;
      if (!xml.ok()) return false;
      if (progress && !progress(stats_.albums, total)) {
        cancelled = true;
        return false;
      }
      return true;
    });
    if (!xml.ok()) return HResultFromErrno(EIO);
    if (result != kOk) return result;
    if (cancelled) return kAborted;
  }
  document.ArtistDictionary();
  document.UserLists();
  collection.Close();
  const bool written = xml.Finish();
  stats_.bytes = xml.bytes_written();
  return written ? kOk : HResultFromErrno(EIO);
}

}  // namespace dischive
