#include "support/temp_dir.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace dischive::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "dischive-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

namespace {

std::string Drain(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      text.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  ::close(fd);
  return text;
}

}  // namespace

ProcessResult RunCli(const std::vector<std::string>& args, const std::filesystem::path& home,
                     std::string_view stdin_text) {
  ::signal(SIGPIPE, SIG_IGN);  // a program that exits early must not kill the test
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (::pipe(in_pipe) != 0 || ::pipe(out_pipe) != 0 || ::pipe(err_pipe) != 0) {
    throw std::runtime_error("pipe failed");
  }
  std::vector<std::string> env_text = {
      "HOME=" + home.string(),
      "XDG_CONFIG_HOME=" + (home / "config").string(),
      "XDG_DATA_HOME=" + (home / "data").string(),
      "XDG_STATE_HOME=" + (home / "state").string(),
      "XDG_CACHE_HOME=" + (home / "cache").string(),
      "XDG_CONFIG_DIRS=" + (home / "etc").string(),
      "PATH=/usr/bin:/bin",
  };
  for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* v = std::getenv(keep)) env_text.push_back(std::string(keep) + "=" + v);
  }
  std::vector<char*> argv;
  std::string program = DISCHIVE_CLI_PATH;
  argv.push_back(program.data());
  std::vector<std::string> copies(args);
  for (std::string& a : copies)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& e : env_text)
    envp.push_back(e.data());
  envp.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::dup2(in_pipe[0], STDIN_FILENO);
    ::dup2(out_pipe[1], STDOUT_FILENO);
    ::dup2(err_pipe[1], STDERR_FILENO);
    for (int fd : {in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]}) {
      ::close(fd);
    }
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  std::string input(stdin_text);
  std::thread writer([fd = in_pipe[1], input] {
    size_t done = 0;
    while (done < input.size()) {
      const ssize_t n = ::write(fd, input.data() + done, input.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::close(fd);
  });
  ProcessResult result;
  std::thread err_reader([&] { result.err = Drain(err_pipe[0]); });
  result.out = Drain(out_pipe[0]);
  err_reader.join();
  writer.join();
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace dischive::test
