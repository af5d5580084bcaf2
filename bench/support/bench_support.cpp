#include "support/bench_support.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace dischive::bench {

size_t PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
  }
  return 0;
}

ScratchDir::ScratchDir(const std::string& name) {
  const char* base = std::getenv("DISCHIVE_BENCH_DIR");
  path_ = (base != nullptr && base[0] != '\0') ? std::filesystem::path(base)
                                               : std::filesystem::temp_directory_path();
  path_ /= "dischive-bench-" + name + "-" + std::to_string(::getpid());
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace dischive::bench
