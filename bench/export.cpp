// Export speed and memory: the collection document of a catalogue of 100,000
// albums of 12 tracks, written by CollectionWriter, and for comparison the same
// elements and attributes written through libxml2's xmlTextWriter. Both read
// the same generated albums and write to a sink that only counts bytes, so the
// difference is the XML writing itself.
//
// DISCHIVE_BENCH_ALBUMS overrides the album count.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <libxml/xmlwriter.h>

#include <cstdlib>
#include <string>

#include "dischive/collection.h"
#include "dischive/date.h"
#include "dischive/sqlite_catalog.h"
#include "dischive/xml_writer.h"
#include "support/bench_support.h"

namespace dischive {
namespace {

namespace f = field;

size_t AlbumCountFromEnvironment() {
  const char* text = std::getenv("DISCHIVE_BENCH_ALBUMS");
  if (text != nullptr && *text != '\0') return std::strtoull(text, nullptr, 10);
  return 100000;
}

constexpr int kTracks = 12;

// A catalogue whose albums are made as they are visited: one record in memory
// at a time, each album with different identifiers, titles and lengths.
class GeneratedCatalog : public CatalogEngine {
 public:
  explicit GeneratedCatalog(size_t albums) : count_(albums) {
    AlbumRecord& a = album_;
    a.artists = {"The Example Orchestra & Choir"};
    a.composers = {"Johann Sebastian Bach"};
    PropertySet& p = a.properties;
    p.Set(f::kYear, std::string("1987"));
    p.Set(f::kGenre, std::string("Classical"));
    p.Set(f::kCategory, std::string("classical"));
    p.Set(f::kComment,
          std::string("Recorded live.\r\nRemastered in 2004 from the original tapes."));
    p.Set(f::kLabel, std::string("Deutsche Grammophon"));
    p.Set(f::kCatalogNo, std::string("DG 415 448-2"));
    p.Set(f::kUpc, std::string("028941544822"));
    p.Set(f::kReleaseDate, static_cast<int32_t>(PackDate({1987, 3, 1})));
    p.Set(f::kPrice, 1599);
    p.Set(f::kIsCompilation, 1);
    p.Set(f::kLocation, std::string("Shelf 3 <left>"));
    VolumeRecord v;
    v.created = 0x4F000000;
    v.played = 0x5A000000;
    for (int t = 1; t <= kTracks; ++t) {
      TrackRecord track;
      track.number = static_cast<uint32_t>(t);
      track.properties.Set(f::kBitrate, 320);
      if (t % 3 == 0) track.properties.Set(f::kLive, 1);
      track.properties.Set(f::kArtist, std::string("Soloist Number ") + std::to_string(t));
      track.properties.Set(f::kComposer, std::string("J. S. Bach"));
      track.properties.Set(
          f::kFilePath, fmt::format("/home/user/Music/Bach/Mass in B minor/{:02} - Part.flac", t));
      track.properties.Set(f::kFileSize, std::to_string(30000000 + t));
      v.tracks.push_back(std::move(track));
    }
    a.volumes = {std::move(v)};
  }

  const std::filesystem::path& path() const override { return path_; }
  size_t AlbumCount() override { return count_; }
  CatalogCounts Counts() override { return CatalogCounts{count_, count_, count_ * kTracks, 0, 0}; }
  HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) override {
    for (size_t i = 0; i < count_; ++i) {
      album_.id = fmt::format("{:016X}", 0x1000000000000000ull + i * 7919);
      album_.modified = static_cast<uint32_t>(0x50000000 + i);
      album_.properties.Set(f::kTitle, fmt::format("Mass in B minor, BWV 232 (vol. {})", i));
      VolumeRecord& v = album_.volumes.front();
      v.record_id = static_cast<uint32_t>(i << 8 | kTracks);
      v.frames = 0;
      for (TrackRecord& track : v.tracks) {
        track.frames = static_cast<uint32_t>(15000 + (i * 31 + track.number * 977) % 30000);
        v.frames += track.frames;
        track.properties.Set(f::kTrackTitle,
                             fmt::format("Kyrie eleison {} \"Christe\" & more", track.number));
      }
      if (!visit(album_)) break;
    }
    return kOk;
  }
  std::optional<AlbumRecord> ReadAlbum(std::string_view) override { return std::nullopt; }
  std::optional<std::string> FindAlbumOfVolume(uint32_t) override { return std::nullopt; }
  std::optional<VolumeRecord> ReadVolume(uint32_t) override { return std::nullopt; }
  HResult WriteAlbum(AlbumRecord&, WriteMode) override { return kFail; }
  HResult DeleteAlbum(std::string_view) override { return kFail; }
  std::optional<PropertyValue> GetVolumeProperty(uint32_t, f::FieldId, uint32_t) override {
    return std::nullopt;
  }
  HResult SetVolumeProperty(uint32_t, f::FieldId, uint32_t, const PropertyValue&) override {
    return kFail;
  }
  std::optional<std::string> ReadCover(uint32_t) override { return std::nullopt; }
  HResult WriteCover(uint32_t, std::string_view) override { return kFail; }
  std::vector<ArtistEntry> Artists() override { return {}; }
  uint32_t ArtistsModified() override { return 0; }
  HResult WriteArtist(const ArtistEntry&) override { return kFail; }
  std::optional<std::string> GetDatabaseProperty(std::string_view, std::string_view) override {
    return std::nullopt;
  }
  HResult SetDatabaseProperty(std::string_view, std::string_view, std::string_view) override {
    return kFail;
  }
  HResult RemoveDatabaseProperty(std::string_view, std::string_view) override { return kFail; }
  std::string UserList(std::string_view) override { return "CD\nLP\nMC\n"; }
  HResult SetUserList(std::string_view, std::string_view) override { return kFail; }
  uint32_t UserListTimestamp(std::string_view) override { return 0x60000000; }
  HResult RemoveVolumeProperty(uint32_t, f::FieldId, uint32_t) override { return kFail; }
  HResult RemoveArtist(std::string_view) override { return kFail; }
  std::vector<std::pair<std::string, std::string>> DatabaseProperties(std::string_view) override {
    return {};
  }
  HResult SuspendWriting() override { return kOk; }
  void ResumeWriting() override {}
  std::string LastErrorText() const override { return {}; }

 private:
  size_t count_;
  AlbumRecord album_;
  std::filesystem::path path_ = "generated.dab";
};

class CountingOutput : public XmlOutput {
 public:
  bool Write(const char* data, size_t size) override {
    benchmark::DoNotOptimize(data);
    bytes += size;
    return true;
  }
  uint64_t bytes = 0;
};

void ReportCounters(benchmark::State& state, uint64_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["doc_MB"] = static_cast<double>(bytes) / state.iterations() / 1e6;
  state.counters["peak_MiB"] = static_cast<double>(bench::PeakResidentBytes()) / (1024 * 1024);
}

// The cost both writers share: making the albums.
void BM_GenerateAlbumsOnly(benchmark::State& state) {
  GeneratedCatalog catalog(AlbumCountFromEnvironment());
  for (auto _ : state) {
    size_t tracks = 0;
    catalog.ForEachAlbum([&](const AlbumRecord& album) {
      tracks += album.volumes.front().tracks.size();
      benchmark::DoNotOptimize(album);
      return true;
    });
    benchmark::DoNotOptimize(tracks);
  }
}
BENCHMARK(BM_GenerateAlbumsOnly)->Unit(benchmark::kMillisecond);

void BM_CollectionWriter(benchmark::State& state) {
  GeneratedCatalog catalog(AlbumCountFromEnvironment());
  uint64_t bytes = 0;
  for (auto _ : state) {
    CountingOutput out;
    CollectionWriter writer(catalog);
    if (writer.Write(out) != kOk) state.SkipWithError("export failed");
    bytes += out.bytes;
  }
  ReportCounters(state, bytes);
}
BENCHMARK(BM_CollectionWriter)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The same document through libxml2: tab indentation, the same elements and
// attribute values, CDATA where the collection writer uses it.
class LibXml2Document {
 public:
  explicit LibXml2Document(CountingOutput& out) {
    xmlOutputBufferPtr buffer = xmlOutputBufferCreateIO(
        [](void* context, const char* data, int size) {
          static_cast<CountingOutput*>(context)->Write(data, static_cast<size_t>(size));
          return size;
        },
        [](void*) { return 0; }, &out, nullptr);
    writer_ = xmlNewTextWriter(buffer);
    xmlTextWriterSetIndent(writer_, 1);
    xmlTextWriterSetIndentString(writer_, BAD_CAST "\t");
    xmlTextWriterStartDocument(writer_, "1.0", "UTF-8", nullptr);
  }
  ~LibXml2Document() { xmlFreeTextWriter(writer_); }

  void Start(const char* name) { xmlTextWriterStartElement(writer_, BAD_CAST name); }
  void End() { xmlTextWriterEndElement(writer_); }
  void Attribute(const char* name, std::string_view value) {
    if (value.empty()) return;
    const std::string text(value);
    xmlTextWriterWriteAttribute(writer_, BAD_CAST name, BAD_CAST text.c_str());
  }
  void Text(const char* name, const std::string& value) {
    if (!value.empty()) xmlTextWriterWriteElement(writer_, BAD_CAST name, BAD_CAST value.c_str());
  }
  void String(const std::string& value) {
    xmlTextWriterWriteString(writer_, BAD_CAST value.c_str());
  }
  void CData(const char* name, const std::string& value) {
    if (value.empty()) return;
    Start(name);
    xmlTextWriterWriteCDATA(writer_, BAD_CAST value.c_str());
    End();
  }
  void Finish() { xmlTextWriterEndDocument(writer_); }

 private:
  xmlTextWriterPtr writer_;
};

void WriteAlbumWithLibXml2(LibXml2Document& doc, const AlbumRecord& a) {
  const PropertySet& p = a.properties;
  const VolumeRecord& v = a.volumes.front();
  doc.Start("Album");
  doc.Attribute("ID", a.id);
  doc.Attribute("Modified", fmt::format("{:08X}", a.modified));
  doc.Attribute("Created", fmt::format("{:08X}", v.created));
  doc.Attribute("Played", fmt::format("{:08X}", v.played));
  doc.Attribute("IsCompilation", "1");
  doc.Attribute("CDDBID", fmt::format("{:08X}", v.record_id));
  doc.Attribute("Frames", fmt::format("{}", v.frames));
  const uint32_t s = v.frames / 75;
  doc.Attribute("Time", fmt::format("{}:{:02}", s / 60, s % 60));
  doc.Start("Artists");
  for (const std::string& name : a.artists)
    doc.Text("Artist", name);
  doc.End();
  doc.Start("Composers");
  for (const std::string& name : a.composers)
    doc.Text("Composer", name);
  doc.End();
  doc.Text("Title", p.Text(f::kTitle));
  doc.Text("Year", p.Text(f::kYear));
  doc.Start("Genres");
  doc.Text("Genre", p.Text(f::kGenre));
  doc.End();
  doc.Text("Category", p.Text(f::kCategory));
  doc.CData("Comment", p.Text(f::kComment));
  doc.Text("UPC", p.Text(f::kUpc));
  doc.Start("ReleaseDate");
  doc.Attribute("Encoded", fmt::format("{:08X}", p.Int(f::kReleaseDate)));
  doc.String(FormatDate(static_cast<uint32_t>(p.Int(f::kReleaseDate))));
  doc.End();
  doc.Text("Label", p.Text(f::kLabel));
  doc.Text("CatalogNo", p.Text(f::kCatalogNo));
  const uint32_t price = static_cast<uint32_t>(p.Int(f::kPrice));
  doc.Text("Price", fmt::format("{}.{:02}", price / 100, price % 100));
  doc.Text("Location", p.Text(f::kLocation));
  doc.Start("Volumes");
  doc.Start("Volume");
  doc.Attribute("ID", fmt::format("{:08X}", v.record_id));
  doc.Attribute("Frames", fmt::format("{}", v.frames));
  doc.Attribute("Time", fmt::format("{}:{:02}", s / 60, s % 60));
  doc.Start("Common");
  doc.Attribute("Bitrate", "320");
  doc.End();
  doc.Start("Tracks");
  for (const TrackRecord& t : v.tracks) {
    const PropertySet& tp = t.properties;
    doc.Start("Track");
    doc.Attribute("Number", fmt::format("{:02}", t.number));
    doc.Attribute("Frames", fmt::format("{}", t.frames));
    doc.Attribute("Time", fmt::format("{}:{:02}", t.frames / 75 / 60, t.frames / 75 % 60));
    if (tp.Int(f::kLive) != 0) doc.Attribute("Live", "1");
    doc.Text("Artist", tp.Text(f::kArtist));
    doc.Text("Composer", tp.Text(f::kComposer));
    doc.Text("Title", tp.Text(f::kTrackTitle));
    doc.Start("File");
    doc.Attribute("Size", tp.Text(f::kFileSize));
    doc.Text("Path", tp.Text(f::kFilePath));
    doc.End();
    doc.End();
  }
  doc.End();  // Tracks
  doc.End();  // Volume
  doc.End();  // Volumes
  doc.End();  // Album
}

void BM_LibXml2TextWriter(benchmark::State& state) {
  GeneratedCatalog catalog(AlbumCountFromEnvironment());
  uint64_t bytes = 0;
  for (auto _ : state) {
    CountingOutput out;
    {
      LibXml2Document doc(out);
      doc.Start("Collection");
      doc.Attribute("Version", "1.0");
      doc.Start("Albums");
      catalog.ForEachAlbum([&](const AlbumRecord& album) {
        WriteAlbumWithLibXml2(doc, album);
        return true;
      });
      doc.End();
      doc.Start("Artists");
      doc.Attribute("Modified", "00000000");
      doc.End();
      for (const char* key : kUserListKeys) {
        doc.Start("List");
        doc.Attribute("Modified", fmt::format("{:08X}", catalog.UserListTimestamp(key)));
        doc.Text("Item", "CD");
        doc.Text("Item", "LP");
        doc.Text("Item", "MC");
        doc.End();
      }
      doc.Finish();
    }
    bytes += out.bytes;
  }
  ReportCounters(state, bytes);
}
BENCHMARK(BM_LibXml2TextWriter)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The whole export from a real catalogue file: SQLite reading included. The
// catalogue is made once (DISCHIVE_BENCH_SQLITE_ALBUMS albums, default the
// same count as above) in a scratch folder.
void BM_ExportSqliteCatalogue(benchmark::State& state) {
  const char* text = std::getenv("DISCHIVE_BENCH_SQLITE_ALBUMS");
  const size_t albums = text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10)
                                                         : AlbumCountFromEnvironment();
  bench::ScratchDir scratch("export");
  HResult error = kOk;
  std::string message;
  std::unique_ptr<CatalogEngine> catalog =
      OpenSqliteCatalog(scratch.path() / "bench.dab", CatalogOpenMode::kCreate, &error, &message);
  if (!catalog) {
    state.SkipWithError(message.c_str());
    return;
  }
  GeneratedCatalog source(albums);
  source.ForEachAlbum([&](const AlbumRecord& album) {
    AlbumRecord copy = album;
    error = catalog->WriteAlbum(copy, WriteMode::kReplace);
    return error == kOk;
  });
  if (error != kOk) {
    state.SkipWithError("filling the catalogue failed");
    return;
  }
  uint64_t bytes = 0;
  for (auto _ : state) {
    CountingOutput out;
    CollectionWriter writer(*catalog);
    if (writer.Write(out) != kOk) state.SkipWithError("export failed");
    bytes += out.bytes;
  }
  ReportCounters(state, bytes);
  state.counters["albums"] = static_cast<double>(albums);
}
BENCHMARK(BM_ExportSqliteCatalogue)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace dischive
