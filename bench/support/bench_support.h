// Helpers shared by the benchmark programs.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace dischive::bench {

/// Peak resident set size of this process so far, in bytes (VmHWM).
size_t PeakResidentBytes();

/// A scratch folder under $DISCHIVE_BENCH_DIR (default: the system temporary
/// folder), removed when the object goes away.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace dischive::bench
