// A temporary folder removed with everything in it when the test ends.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dischive::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

/// Sets an environment variable until the end of the scope, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

/// Writes bytes to a file, creating its folders.
void WriteFile(const std::filesystem::path& path, std::string_view bytes);
/// Reads a whole file ("" when missing).
std::string ReadFile(const std::filesystem::path& path);

/// The result of running a program: exit code and both outputs.
struct ProcessResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};

/// Runs the dischive program with `args`, the environment's XDG folders pointed
/// into `home` so that no user file is touched, and standard input closed.
ProcessResult RunCli(const std::vector<std::string>& args, const std::filesystem::path& home,
                     std::string_view stdin_text = {});

}  // namespace dischive::test
