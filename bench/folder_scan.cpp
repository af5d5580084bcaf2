// Folder scan speed: a generated library of 10,000 files in 1,000 folders
// scanned into a fresh catalogue, then rescanned unchanged, beside the raw-read
// floor (opening and reading every file once, as the tag readers must at least
// do).
//
// Targets: the first scan within 2x of the floor (files/s); the unchanged
// rescan at least 20x faster than the first scan. The floor runs first and
// warms the page cache for the others. The load of a shared machine changes
// within a run, so the scan benchmarks also take the floors in the same
// iterations and report the ratios as counters.
//
// A second floor bounds the rescan: reading every folder and one status call
// for every file, the least a rescan must do to notice a change of any file's
// size or modification time (a directory's listing on POSIX carries neither).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "dischive/folder_scan.h"
#include "dischive/sqlite_catalog.h"
#include "support/bench_support.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 10;  // 6 MP3, 2 FLAC, 2 Ogg Vorbis

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// An ID3v2.3 tag with Latin-1 text frames and `padding` zero bytes.
std::string Id3Tag(const std::vector<std::pair<std::string, std::string>>& frames, size_t padding) {
  std::string body;
  for (const auto& [id, text] : frames) {
    const uint32_t size = static_cast<uint32_t>(text.size() + 1);
    body += id;
    for (int shift = 24; shift >= 0; shift -= 8)
      body.push_back(static_cast<char>(size >> shift));
    body += std::string(2, '\0');
    body.push_back('\0');  // ISO-8859-1
    body += text;
  }
  body.append(padding, '\0');
  std::string tag = "ID3";
  tag += std::string("\x03\x00\x00", 3);
  const uint32_t size = static_cast<uint32_t>(body.size());
  for (int shift = 21; shift >= 0; shift -= 7)
    tag.push_back(static_cast<char>((size >> shift) & 0x7F));
  return tag + body;
}

struct Corpus {
  bench::ScratchDir scratch{"folder-scan"};
  fs::path root = scratch.path() / "library";
  std::vector<fs::path> files;
  uint64_t bytes = 0;

  Corpus() {
    // Real encoder output from the repository's fixtures and sample library.
    const fs::path source = fs::path(__FILE__).parent_path().parent_path();
    const std::string mp3 = ReadAll(source / "tests/data/scan/tone.mp3");
    const std::string flac =
        ReadAll(source / "examples/music/Brightfern Quartet/Morning Light/01 Sunrise.flac");
    const std::string ogg =
        ReadAll(source / "examples/music/The Lamplighters - Harbour Lights/01 Harbour Lights.ogg");
    if (mp3.empty() || flac.empty() || ogg.empty()) {
      std::fprintf(stderr, "folder_scan: fixture files missing under %s\n", source.c_str());
      std::exit(1);
    }
    for (int f = 0; f < kFolders; ++f) {
      const std::string artist = "Artist " + std::to_string(f / 10);
      const std::string album = "Album " + std::to_string(f);
      const fs::path folder = root / artist / album;
      fs::create_directories(folder);
      for (int t = 0; t < kFilesPerFolder; ++t) {
        std::string bytes_of_file;
        fs::path name;
        char number[16];
        std::snprintf(number, sizeof number, "%02d", t + 1);
        if (t < 6) {
          // The padding of the first file makes every folder's byte total (and
          // so its record id) its own.
          bytes_of_file = Id3Tag({{"TIT2", "Song " + std::to_string(t + 1)},
                                  {"TPE1", artist},
                                  {"TALB", album},
                                  {"TRCK", std::to_string(t + 1)}},
                                 t == 0 ? static_cast<size_t>(f) : 0) +
                          mp3;
          name = folder / (std::string(number) + " Song.mp3");
        } else if (t < 8) {
          bytes_of_file = flac;
          name = folder / (std::string(number) + " Song.flac");
        } else {
          bytes_of_file = ogg;
          name = folder / (std::string(number) + " Song.ogg");
        }
        std::ofstream(name, std::ios::binary) << bytes_of_file;
        files.push_back(name);
        bytes += bytes_of_file.size();
      }
    }
  }
};

Corpus& TheCorpus() {
  static Corpus corpus;
  return corpus;
}

FolderScanOptions Options() {
  FolderScanOptions options;
  options.flags = scan_flags::kDefault;
  return options;
}

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The floor, as the tag reader benchmark defines it: open each file, read its
// first 64 KiB, close it. Returns the files read.
size_t RawRead(const Corpus& corpus) {
  static std::vector<char> buffer(65536);
  size_t files = 0;
  for (const fs::path& path : corpus.files) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (::read(fd, buffer.data(), buffer.size()) >= 0) ++files;
    ::close(fd);
  }
  return files;
}

// The rescan floor: every folder read, every file's status taken. Returns the
// files seen.
size_t WalkAndStat(const Corpus& corpus) {
  size_t files = 0;
  std::vector<std::string> stack{corpus.root.string()};
  while (!stack.empty()) {
    const std::string folder = std::move(stack.back());
    stack.pop_back();
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) continue;
    while (const dirent* e = ::readdir(dir)) {
      if (e->d_name[0] == '.') continue;
      if (e->d_type == DT_DIR) {
        stack.push_back(folder + "/" + e->d_name);
      } else {
        struct stat st {};
        if (::fstatat(::dirfd(dir), e->d_name, &st, 0) == 0) ++files;
      }
    }
    ::closedir(dir);
  }
  return files;
}

// Scans the library into a fresh catalogue at `db`; returns the albums added.
size_t FirstScan(const Corpus& corpus, const fs::path& db) {
  for (const char* suffix : {"", "-wal", "-shm", ".lock"})
    fs::remove(db.string() + suffix);
  auto catalog = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
  if (!catalog) return 0;
  FolderScanner scanner(*catalog, Options());
  return ScanLibrary(scanner, {corpus.root}).added;
}

void BM_RawReadFloor(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  for (auto _ : state)
    benchmark::DoNotOptimize(RawRead(corpus));
  state.counters["files/s"] = benchmark::Counter(
      static_cast<double>(corpus.files.size()) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

void BM_WalkAndStatFloor(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  for (auto _ : state)
    benchmark::DoNotOptimize(WalkAndStat(corpus));
  state.counters["folders/s"] =
      benchmark::Counter(static_cast<double>(kFolders) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

// Tag reading alone, for comparison with the floor.
void BM_ReadMediaFiles(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  for (auto _ : state) {
    for (const fs::path& path : corpus.files) {
      MediaFileInfo info;
      benchmark::DoNotOptimize(ReadMediaFile(path, info, true));
    }
  }
  state.counters["files/s"] = benchmark::Counter(
      static_cast<double>(corpus.files.size()) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

// The first scan, timed alone; each iteration also takes the raw-read floor
// right before it, so that "x_floor" (scan time over floor time) compares the
// two under the same machine load.
void BM_FirstScan(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  const fs::path db = corpus.scratch.path() / "first.dab";
  double floor = 0, scan = 0;
  size_t added = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    benchmark::DoNotOptimize(RawRead(corpus));
    floor += Seconds(start);
    start = Clock::now();
    added = FirstScan(corpus, db);
    const double seconds = Seconds(start);
    scan += seconds;
    state.SetIterationTime(seconds);
  }
  state.counters["files/s"] = benchmark::Counter(
      static_cast<double>(corpus.files.size()) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
  state.counters["albums"] = static_cast<double>(added);
  state.counters["x_floor"] = scan / floor;
}

// The unchanged rescan, timed alone; each iteration also makes a first scan
// and takes the walk-and-status floor, so that "speedup" (first scan over
// rescan) and "x_walk_floor" (rescan over that floor) are measured under the
// same load.
void BM_UnchangedRescan(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  const fs::path db = corpus.scratch.path() / "rescan.dab";
  double first = 0, rescan = 0, walk = 0;
  size_t skipped = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    FirstScan(corpus, db);
    first += Seconds(start);
    auto catalog = OpenSqliteCatalog(db, CatalogOpenMode::kReadWrite);
    if (!catalog) {
      state.SkipWithError("cannot open the catalogue");
      return;
    }
    FolderScanner scanner(*catalog, Options());
    start = Clock::now();
    benchmark::DoNotOptimize(WalkAndStat(corpus));
    walk += Seconds(start);
    start = Clock::now();
    skipped = ScanLibrary(scanner, {corpus.root}).skipped;
    const double seconds = Seconds(start);
    rescan += seconds;
    state.SetIterationTime(seconds);
  }
  state.counters["folders/s"] =
      benchmark::Counter(static_cast<double>(kFolders) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
  state.counters["skipped"] = static_cast<double>(skipped);
  state.counters["speedup"] = first / rescan;
  state.counters["x_walk_floor"] = rescan / walk;
}

BENCHMARK(BM_RawReadFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_WalkAndStatFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ReadMediaFiles)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_FirstScan)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(20);
BENCHMARK(BM_UnchangedRescan)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(20);

}  // namespace
}  // namespace dischive
