// Writing and reading back a large catalogue: albums of 12 tracks each, one
// transaction per album as the folder scan and the lookups write them.
// Reports albums per second both ways, the file size and the peak memory; run
// with the 10,000 and 100,000 album sizes to see that memory stays flat.
#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
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

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Writes `count` albums into a new catalogue at `path`; returns the seconds taken.
double WriteCatalogue(const std::filesystem::path& path, uint32_t count, benchmark::State* state) {
  auto catalog = dischive::OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  if (!catalog) {
    if (state != nullptr) state->SkipWithError("cannot create the catalogue");
    return 0;
  }
  const auto start = std::chrono::steady_clock::now();
  for (uint32_t n = 1; n <= count; ++n) {
    AlbumRecord album = MakeAlbum(n);
    if (catalog->WriteAlbum(album, dischive::WriteMode::kReplace) != dischive::kOk) {
      if (state != nullptr) state->SkipWithError(catalog->LastErrorText().c_str());
      return 0;
    }
  }
  catalog.reset();  // closing folds the log back into the file
  return Seconds(start);
}

void BM_WriteCatalogue(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  dischive::bench::ScratchDir dir("catalog-write");
  double seconds = 0;
  uintmax_t bytes = 0;
  for (auto _ : state) {
    const auto path = dir.path() / "bench.dab";
    std::filesystem::remove(path);
    seconds = WriteCatalogue(path, count, &state);
    bytes = std::filesystem::file_size(path);
  }
  state.counters["albums_per_s"] = seconds > 0 ? count / seconds : 0;
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  state.counters["bytes_per_album"] = static_cast<double>(bytes) / count;
  state.counters["peak_RSS_MB"] = static_cast<double>(dischive::bench::PeakResidentBytes()) / 1e6;
}

void BM_EnumerateCatalogue(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  dischive::bench::ScratchDir dir("catalog-read");
  const auto path = dir.path() / "bench.dab";
  WriteCatalogue(path, count, &state);
  auto catalog = dischive::OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  if (!catalog) {
    state.SkipWithError("cannot open the catalogue");
    return;
  }
  double seconds = 0;
  size_t seen = 0, tracks = 0;
  for (auto _ : state) {
    seen = tracks = 0;
    const auto start = std::chrono::steady_clock::now();
    catalog->ForEachAlbum([&](const AlbumRecord& album) {
      ++seen;
      tracks += album.volumes.empty() ? 0 : album.volumes[0].tracks.size();
      return true;
    });
    seconds = Seconds(start);
  }
  if (seen != count || tracks != size_t{count} * kTracks) state.SkipWithError("albums missing");
  state.counters["albums_per_s"] = seconds > 0 ? count / seconds : 0;
  state.counters["peak_RSS_MB"] = static_cast<double>(dischive::bench::PeakResidentBytes()) / 1e6;
}

BENCHMARK(BM_WriteCatalogue)
    ->Arg(10000)
    ->Arg(100000)
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
