// Writing and reading back a large catalogue: albums of 12 tracks each.
// Writes go one transaction per album (as a lookup saves one) or in batches of
// 1,000 (as an import or a library scan can). Reports albums per second of
// elapsed time and of processor time (on a machine shared with other work the
// elapsed time includes waiting for a processor), the file size and the peak
// memory; the 10,000 and 100,000 album sizes show that memory stays flat.
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <memory>
#include <string>

#include "dischive/sqlite_catalog.h"
#include "support/bench_support.h"

namespace {

using dischive::AlbumRecord;
using dischive::CatalogOpenMode;
using dischive::TrackRecord;
using dischive::VolumeRecord;
namespace field = dischive::field;

constexpr int kTracks = 12;

// A typical album: a handful of album fields, one volume, 12 tracks with a
// title and an artist each.
AlbumRecord MakeAlbum(uint32_t n) {
  AlbumRecord a;
  a.properties.Set(field::kTitle, "Album number " + std::to_string(n));
  a.properties.Set(field::kYear, std::to_string(1950 + n % 70));
  a.properties.Set(field::kGenre, "Jazz");
  a.properties.Set(field::kLabel, "Label " + std::to_string(n % 500));
  a.properties.Set(field::kReleaseDate, static_cast<int32_t>((50 + n % 70) << 24 | 1 << 16));
  a.properties.Set(field::kInCollection, 1);
  a.artists = {"Artist " + std::to_string(n % 5000)};
  VolumeRecord v;
  v.record_id = n << 8 | kTracks;
  v.frames = kTracks * 15000;
  for (int t = 1; t <= kTracks; ++t) {
    TrackRecord& track = v.tracks.emplace_back();
    track.number = static_cast<uint32_t>(t);
    track.frames = 15000;
    track.properties.Set(field::kTrackTitle,
                         "Song " + std::to_string(t) + " of " + std::to_string(n));
    track.properties.Set(field::kArtist, a.artists[0]);
  }
  a.volumes.push_back(std::move(v));
  return a;
}

// Elapsed and processor seconds since construction.
class Stopwatch {
 public:
  Stopwatch() : wall_(std::chrono::steady_clock::now()), cpu_(Cpu()) {}
  double Elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_).count();
  }
  double Processor() const { return Cpu() - cpu_; }

 private:
  static double Cpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  }
  std::chrono::steady_clock::time_point wall_;
  double cpu_;
};

struct Timing {
  double elapsed = 0;
  double processor = 0;
};

// Writes `count` albums into a new catalogue at `path`, committing every
// `batch` albums (1: each album in its own transaction).
Timing WriteCatalogue(const std::filesystem::path& path, uint32_t count, uint32_t batch,
                      benchmark::State& state) {
  auto catalog = dischive::OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  if (!catalog) {
    state.SkipWithError("cannot create the catalogue");
    return {};
  }
  const Stopwatch watch;
  for (uint32_t n = 1; n <= count; ++n) {
    if (batch > 1 && n % batch == 1) catalog->BeginBatch();
    AlbumRecord album = MakeAlbum(n);
    if (catalog->WriteAlbum(album, dischive::WriteMode::kReplace) != dischive::kOk) {
      state.SkipWithError(catalog->LastErrorText().c_str());
      return {};
    }
    if (batch > 1 && (n % batch == 0 || n == count)) catalog->CommitBatch();
  }
  catalog.reset();  // closing folds the log back into the file
  return {watch.Elapsed(), watch.Processor()};
}

void Report(benchmark::State& state, uint32_t count, const Timing& t) {
  state.counters["albums_per_s"] = t.elapsed > 0 ? count / t.elapsed : 0;
  state.counters["albums_per_cpu_s"] = t.processor > 0 ? count / t.processor : 0;
  state.counters["peak_RSS_MB"] = static_cast<double>(dischive::bench::PeakResidentBytes()) / 1e6;
}

// Arguments: album count, albums per transaction.
void BM_WriteCatalogue(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  const auto batch = static_cast<uint32_t>(state.range(1));
  dischive::bench::ScratchDir dir("catalog-write");
  const auto path = dir.path() / "bench.dab";
  Timing timing;
  for (auto _ : state) {
    std::filesystem::remove(path);
    timing = WriteCatalogue(path, count, batch, state);
  }
  Report(state, count, timing);
  const auto bytes = static_cast<double>(std::filesystem::file_size(path));
  state.counters["file_MB"] = bytes / 1e6;
  state.counters["bytes_per_album"] = bytes / count;
}

void BM_EnumerateCatalogue(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  dischive::bench::ScratchDir dir("catalog-read");
  const auto path = dir.path() / "bench.dab";
  WriteCatalogue(path, count, 1000, state);
  auto catalog = dischive::OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  if (!catalog) {
    state.SkipWithError("cannot open the catalogue");
    return;
  }
  Timing timing;
  size_t seen = 0, tracks = 0;
  for (auto _ : state) {
    seen = tracks = 0;
    const Stopwatch watch;
    catalog->ForEachAlbum([&](const AlbumRecord& album) {
      ++seen;
      tracks += album.volumes.empty() ? 0 : album.volumes[0].tracks.size();
      return true;
    });
    timing = {watch.Elapsed(), watch.Processor()};
  }
  if (seen != count || tracks != size_t{count} * kTracks) state.SkipWithError("albums missing");
  Report(state, count, timing);
}

BENCHMARK(BM_WriteCatalogue)
    ->Args({10000, 1})
    ->Args({100000, 1})
    ->Args({100000, 1000})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
BENCHMARK(BM_EnumerateCatalogue)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace
