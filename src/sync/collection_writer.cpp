// The collection document, written album by album through XmlStreamWriter.
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>

#include "dischive/codec.h"
#include "dischive/collection.h"
#include "dischive/cover.h"
#include "dischive/date.h"
#include "dischive/errors.h"
#include "dischive/random_id.h"

namespace dischive {
namespace {

namespace f = field;

// Cover hashes remembered by one writer before the memory is given back.
constexpr size_t kMaxRememberedCovers = 65536;

// A short formatted value kept on the stack (numbers, times, hex).
class Value {
 public:
  template <typename... Args>
  explicit Value(fmt::format_string<Args...> format, Args&&... args) {
    const auto result =
        fmt::format_to_n(data_.data(), data_.size(), format, std::forward<Args>(args)...);
    size_ = std::min(result.size, data_.size());
  }
  operator std::string_view() const { return {data_.data(), size_}; }

 private:
  std::array<char, 32> data_;
  size_t size_ = 0;
};

Value Hex8(uint32_t value) {
  return Value("{:08X}", value);
}
Value Decimal(int64_t value) {
  return Value("{}", value);
}

// Album and volume times: "m:ss" below an hour, else "h:mm:ss".
Value LongTime(uint64_t frames) {
  const uint64_t seconds = frames / 75;
  if (seconds < 3600) return Value("{}:{:02}", seconds / 60, seconds % 60);
  return Value("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

// Track times are always "m:ss", however many minutes.
Value TrackTime(uint32_t frames) {
  const uint32_t seconds = frames / 75;
  return Value("{}:{:02}", seconds / 60, seconds % 60);
}

// Money is stored in hundredths.
Value Money(uint32_t hundredths) {
  return Value("{}.{:02}", hundredths / 100, hundredths % 100);
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

constexpr const char* kTextNames[10] = {"Text1", "Text2", "Text3", "Text4", "Text5",
                                        "Text6", "Text7", "Text8", "Text9", "Text10"};
constexpr const char* kDateNames[5] = {"Date1", "Date2", "Date3", "Date4", "Date5"};
constexpr const char* kMemoNames[5] = {"Memo1", "Memo2", "Memo3", "Memo4", "Memo5"};

constexpr NamedField kRecordingTexts[] = {
    {"RecSource", f::kRecSource},   {"RecGeneration", f::kRecGeneration},
    {"RecQuality", f::kRecQuality}, {"RecTour", f::kRecTour},
    {"RecCity", f::kRecCity},       {"RecCountry", f::kRecCountry},
    {"RecVenue", f::kRecVenue},     {"RecStudio", f::kRecStudio},
    {"SPARS", f::kSpars},
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
  void Track(const TrackRecord& track, const std::array<bool, kTrackFlagCount>& common);

  CollectionWriter& owner_;
  XmlStreamWriter& xml_;
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
    scope.Attribute("Time", LongTime(frames));
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
  xml_.WriteTextElement("Title", p.Text(f::kTitle));
  Text("Year", p.Text(f::kYear));
  const std::string genre = p.Text(f::kGenre), genre2 = p.Text(f::kGenre2);
  if (!genre.empty() || !genre2.empty()) {
    XmlElementScope genres(xml_, "Genres");
    genres.Open();
    Text("Genre", genre);
    Text("Genre", genre2);
  }
  Text("Category", p.Text(f::kCategory));
  Text("Format", p.Text(f::kFormat));
  if (const int32_t rating = p.Int(f::kRating); rating != 0) Text("Rating", Decimal(rating));
  CData("Comment", p.Text(f::kComment));
  CData("FreeDBComment", p.Text(f::kFreedbComment));
  Text("RefNo", p.Text(f::kRefNo));
  Text("UPC", p.Text(f::kUpc));
  Text("ASIN", p.Text(f::kAsin));
  Date("ReleaseDate", Unsigned(p, f::kReleaseDate));
  Text("Label", p.Text(f::kLabel));
  Text("CatalogNo", p.Text(f::kCatalogNo));
  Text("Country", p.Text(f::kCountry));
  Text("Company", p.Text(f::kCompany));
  Text("ReissueLabel", p.Text(f::kReissueLabel));
  Date("ReissueDate", Unsigned(p, f::kReissueDate));
  Text("Distributor", p.Text(f::kDistributor));
  if (const uint32_t price = Unsigned(p, f::kPrice); price != 0) Text("Price", Money(price));
  if (const uint32_t price = Unsigned(p, f::kOriginalPrice); price != 0) {
    Text("OriginalPrice", Money(price));
  }
  Text("Store", p.Text(f::kStore));
  Text("Location", p.Text(f::kLocation));
  Text("Status", p.Text(f::kStatus));
  Text("Borrower", p.Text(f::kBorrower));
  Date("CheckinDate", Unsigned(p, f::kCheckinDate));
  Date("CheckoutDate", Unsigned(p, f::kCheckoutDate));
  Text("Packaging", p.Text(f::kPackaging));
  Text("Condition", p.Text(f::kCondition));
}

void CollectionWriter::DocumentWriter::Artwork(const AlbumRecord& album) {
  const PropertySet& p = album.properties;
  XmlElementScope scope(xml_, "Artwork");
  const std::string asin = p.Text(f::kAsin);
  const std::string server = p.Text(f::kAmazonServer);
  size_t server_index = 0;  // 1-based; 0 = not a configured server
  if (!asin.empty() && !server.empty()) {
    const std::vector<std::string>& servers = owner_.options_.amazon_servers;
    for (size_t i = 0; i < servers.size() && server_index == 0; ++i) {
      if (EqualsIgnoreCase(servers[i], server)) server_index = i + 1;
    }
  }
  if (server_index != 0) {
    scope.Attribute("Server", Decimal(static_cast<int64_t>(server_index))).Attribute("ASIN", asin);
    if (p.Int(f::kClassicalStore) != 0) scope.Attribute("Classical", "1");
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
    scope.Attribute("Frames", Decimal(volume.frames)).Attribute("Time", LongTime(volume.frames));
  }
  scope.Open();

  // "Common": the track flags (and bit rate) that every track has with the
  // same non-zero value; they are then left off the tracks.
  std::array<bool, kTrackFlagCount> common{};
  {
    XmlElementScope common_scope(xml_, "Common");
    for (size_t i = 0; i < kTrackFlagCount && !volume.tracks.empty(); ++i) {
      const int32_t first = volume.tracks.front().properties.Int(kTrackFlags[i].id);
      if (first == 0) continue;
      bool same = true;
      for (const TrackRecord& track : volume.tracks) {
        if (track.properties.Int(kTrackFlags[i].id) != first) {
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
  for (const TrackRecord& track : volume.tracks)
    Track(track, common);
}

void CollectionWriter::DocumentWriter::Track(const TrackRecord& track,
                                             const std::array<bool, kTrackFlagCount>& common) {
  const PropertySet& p = track.properties;
  XmlElementScope scope(xml_, "Track");
  scope.Attribute("Number", Value("{:02}", track.number));
  if (track.frames != 0 && track.frames != kUnknownFrames) {
    scope.Attribute("Frames", Decimal(track.frames)).Attribute("Time", TrackTime(track.frames));
  }
  if (const int32_t bpm = p.Int(f::kBpm); bpm != 0) scope.Attribute("BPM", Decimal(bpm));
  for (size_t i = 0; i < kTrackFlagCount; ++i) {
    const int32_t value = p.Int(kTrackFlags[i].id);
    if (common[i] || value == 0) continue;
    scope.Attribute(kTrackFlags[i].name,
                    IsBitrate(kTrackFlags[i]) ? std::string_view(Decimal(value)) : "1");
  }
  scope.Open();

  Text("Artist", p.Text(f::kArtist));
  Text("Composer", p.Text(f::kComposer));
  Text("Title", p.Text(f::kTrackTitle));
  CData("Comment", p.Text(f::kComment));
  CData("FreeDBComment", p.Text(f::kFreedbComment));
  Text("Keywords", p.Text(f::kKeywords));
  Text("ReviewCredit", p.Text(f::kReviewCredit));
  for (size_t i = 0; i < std::size(f::kText); ++i)
    Text(kTextNames[i], p.Text(f::kText[i]));
  for (size_t i = 0; i < std::size(f::kDate); ++i)
    Date(kDateNames[i], Unsigned(p, f::kDate[i]));
  for (size_t i = 0; i < std::size(f::kMemo); ++i)
    CData(kMemoNames[i], p.Text(f::kMemo[i]));
  Date("RecDate", Unsigned(p, f::kRecDate));
  for (const NamedField& field : kRecordingTexts)
    Text(field.name, p.Text(field.id));
  CData("Lyrics", p.Text(f::kLyrics));
  if (const int32_t rating = p.Int(f::kRating); rating != 0) Text("Rating", Decimal(rating));
  if (const std::string path = p.Text(f::kFilePath); !path.empty()) {
    XmlElementScope file(xml_, "File");
    if (const uint32_t size = Unsigned(p, f::kFileSize); size != 0) {
      file.Attribute("Size", Decimal(size));
    }
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
        // Written under a temporary name first so that a reader never sees a
        // partial file under the final one.
        std::filesystem::create_directories(dir, ec);
        const std::filesystem::path temp = dir / (hash + ".jpg." + NewRandomIdentifier() + ".tmp");
        bool written = false;
        {
          std::ofstream out(temp, std::ios::binary | std::ios::trunc);
          out.write(cover.bytes.data(), static_cast<std::streamsize>(cover.bytes.size()));
          out.close();
          written = static_cast<bool>(out);
        }
        if (written) {
          std::filesystem::rename(temp, file, ec);
          written = !ec;
        }
        if (written) {
          ++stats_.covers_stored;
        } else {
          std::filesystem::remove(temp, ec);
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
