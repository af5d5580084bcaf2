// Backing up a 1 GiB database file with 2,000 cover images, beside `cp` of the
// same files in the same run. The files are generated once in a scratch folder
// (removed at exit); every iteration writes a fresh copy and removes it again.
// Target: the backup within 1.2x of the time cp takes.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>

#include "dischive/backup.h"
#include "support/bench_support.h"

namespace {

constexpr uint64_t kDatabaseBytes = 1ull << 30;
constexpr int kCovers = 2000;

struct Corpus {
  dischive::bench::ScratchDir dir{"backup"};
  std::filesystem::path database = dir.path() / "Music.dab";
  std::filesystem::path covers = dir.path() / "Music_covers";
  uint64_t cover_bytes = 0;

  Corpus() {
    std::mt19937_64 random(42);
    std::vector<uint64_t> block((1u << 20) / sizeof(uint64_t));
    {
      std::ofstream out(database, std::ios::binary);
      for (uint64_t written = 0; written < kDatabaseBytes; written += block.size() * 8) {
        for (uint64_t& word : block)
          word = random();
        out.write(reinterpret_cast<const char*>(block.data()),
                  static_cast<std::streamsize>(block.size() * 8));
      }
      if (!out) throw std::runtime_error("cannot write the test database");
    }
    std::filesystem::create_directory(covers);
    for (int i = 0; i < kCovers; ++i) {
      // Covers of 20 to 120 KiB, like scanned JPEG front covers.
      const size_t size = 20 * 1024 + random() % (100 * 1024);
      std::ofstream out(covers / fmt::format("{:08X}.jpg", i), std::ios::binary);
      out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(size));
      cover_bytes += size;
    }
  }
};

Corpus& TheCorpus() {
  static Corpus corpus;
  return corpus;
}

void Sync() {
  // Each run starts without dirty pages of the one before.
  if (std::system("sync") != 0) std::abort();
}

void BM_WriteBackup(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  const std::filesystem::path out = corpus.dir.path() / "out.dhb";
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove(out);
    Sync();
    state.ResumeTiming();
    dischive::BackupRequest request;
    request.database = corpus.database;
    request.covers_folder = corpus.covers;
    request.include_covers = true;
    request.backup = out;
    std::string message;
    if (dischive::WriteBackupFile(request, &message) != dischive::kOk) {
      state.SkipWithError(message.c_str());
      break;
    }
  }
  std::filesystem::remove(out);
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * (kDatabaseBytes + corpus.cover_bytes)));
  state.counters["peak_rss_MiB"] =
      static_cast<double>(dischive::bench::PeakResidentBytes()) / (1024.0 * 1024.0);
}

void BM_CopyWithCp(benchmark::State& state) {
  Corpus& corpus = TheCorpus();
  const std::filesystem::path out = corpus.dir.path() / "cp-out";
  const std::string command =
      fmt::format("cp '{}' '{}/' && cp -r '{}' '{}/'", corpus.database.string(), out.string(),
                  corpus.covers.string(), out.string());
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove_all(out);
    std::filesystem::create_directory(out);
    Sync();
    state.ResumeTiming();
    const int status = std::system(command.c_str());
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("cp failed");
      break;
    }
  }
  std::filesystem::remove_all(out);
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * (kDatabaseBytes + corpus.cover_bytes)));
}

BENCHMARK(BM_CopyWithCp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_WriteBackup)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_CopyWithCp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_WriteBackup)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
