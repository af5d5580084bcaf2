// Replays a fuzz target's corpus with the normal compiler: every argument is a
// file or a folder whose regular files are each fed to LLVMFuzzerTestOneInput
// once. Used as a ctest test, so that every committed corpus (seeds and the
// inputs of past findings) is checked in every build.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    const std::filesystem::path argument(argv[i]);
    if (!std::filesystem::is_directory(argument, error)) {
      ok = Replay(argument) && ok;
      ++replayed;
      continue;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argument, error))
      if (entry.is_regular_file()) files.push_back(entry.path());
    if (error) {
      std::fprintf(stderr, "cannot list %s: %s\n", argument.c_str(), error.message().c_str());
      ok = false;
    }
    for (const auto& file : files) {
      ok = Replay(file) && ok;
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  // An empty corpus is a mistake in the build, not a pass.
  return ok && replayed > 0 ? 0 : 1;
}
