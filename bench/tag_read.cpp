// Reading the tags of a generated corpus of music files, three ways in the
// same run and over the same warm files:
//   Floor     open each file, read its first 64 KiB, close it
//   Readers   ReadMediaFile (tags, playing time, cover picture)
//   TagLib    TagLib::FileRef with audio properties, the same fields
// and, to tell parsing from file access, the readers on the same files held
// in memory.
// The corpus is the committed fixtures (FLAC, Ogg Vorbis, MP3 with ID3v2.3
// and 2.4, WMA, WAVE) copied round-robin; DISCHIVE_BENCH_TAG_FILES sets the
// number of files (default 10,000).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "dischive/tags.h"
#include "scan/tag_readers.h"
#include "support/bench_support.h"

namespace {

namespace fs = std::filesystem;

struct Corpus {
  dischive::bench::ScratchDir dir{"tags"};
  std::vector<std::string> files;
  std::vector<fs::path> paths;  // as a folder walk hands them to the scanner

  Corpus() {
    std::vector<fs::path> fixtures;
    for (const auto& entry : fs::directory_iterator(DISCHIVE_TAG_FIXTURES)) {
      fixtures.push_back(entry.path());
    }
    std::sort(fixtures.begin(), fixtures.end());
    const char* env = std::getenv("DISCHIVE_BENCH_TAG_FILES");
    const size_t count = env != nullptr ? std::strtoul(env, nullptr, 10) : 10000;
    for (size_t i = 0; i < count; ++i) {
      const fs::path& source = fixtures[i % fixtures.size()];
      // A hundred files a folder, as in a music library of albums.
      const fs::path folder = dir.path() / ("album" + std::to_string(i / 100));
      if (i % 100 == 0) fs::create_directories(folder);
      const fs::path target = folder / ("track" + std::to_string(i) + source.extension().string());
      fs::copy_file(source, target);
      files.push_back(target.string());
      paths.push_back(target);
    }
  }
};

Corpus& TheCorpus() {
  static Corpus corpus;
  return corpus;
}

void Floor(benchmark::State& state) {
  const Corpus& corpus = TheCorpus();
  std::vector<char> buffer(65536);
  size_t total = 0;
  for (auto _ : state) {
    for (const std::string& file : corpus.files) {
      const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      const ssize_t n = ::read(fd, buffer.data(), buffer.size());
      if (n > 0) total += static_cast<size_t>(n);
      ::close(fd);
    }
  }
  benchmark::DoNotOptimize(total);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * corpus.files.size()));
}

void Readers(benchmark::State& state) {
  const Corpus& corpus = TheCorpus();
  int64_t frames = 0;
  size_t failures = 0;
  for (auto _ : state) {
    for (const fs::path& file : corpus.paths) {
      dischive::MediaFileInfo info;
      if (dischive::ReadMediaFile(file, info) != dischive::kOk) ++failures;
      frames += info.tags.durationFrames + static_cast<int64_t>(info.tags.title.size());
    }
  }
  benchmark::DoNotOptimize(frames);
  state.counters["failures"] = static_cast<double>(failures);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * corpus.files.size()));
}

// The readers alone, on files already in memory: what parsing costs
// without opening and reading.
void ReadersInMemory(benchmark::State& state) {
  const Corpus& corpus = TheCorpus();
  std::vector<std::pair<std::string, std::string>> files;  // bytes, extension
  for (const fs::path& path : corpus.paths) {
    std::ifstream in(path, std::ios::binary);
    files.emplace_back(std::string(std::istreambuf_iterator<char>(in), {}),
                       path.extension().string().substr(1));
  }
  int64_t frames = 0;
  for (auto _ : state) {
    for (const auto& [bytes, extension] : files) {
      dischive::MemorySource source(bytes);
      dischive::MediaFileInfo info;
      dischive::ReadMediaSource(source, extension, info);
      frames += info.tags.durationFrames;
    }
  }
  benchmark::DoNotOptimize(frames);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * files.size()));
}

void TagLibFileRef(benchmark::State& state) {
  const Corpus& corpus = TheCorpus();
  int64_t seconds = 0;
  size_t failures = 0;
  for (auto _ : state) {
    for (const std::string& file : corpus.files) {
      TagLib::FileRef ref(file.c_str(), true, TagLib::AudioProperties::Average);
      if (ref.isNull() || ref.tag() == nullptr) {
        ++failures;
        continue;
      }
      const TagLib::Tag* tag = ref.tag();
      seconds +=
          static_cast<int64_t>(tag->title().size() + tag->artist().size() + tag->album().size() +
                               tag->comment().size() + tag->genre().size()) +
          tag->year() + tag->track();
      if (ref.audioProperties() != nullptr) {
        seconds += ref.audioProperties()->length() + ref.audioProperties()->bitrate();
      }
    }
  }
  benchmark::DoNotOptimize(seconds);
  state.counters["failures"] = static_cast<double>(failures);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * corpus.files.size()));
}

// The floor runs first and warms the page cache for the other two.
BENCHMARK(Floor)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(Readers)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(ReadersInMemory)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(TagLibFileRef)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
