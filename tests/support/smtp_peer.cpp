#include "support/smtp_peer.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

extern char** environ;

namespace dischive::test {

SmtpPeer::~SmtpPeer() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
}

bool SmtpPeer::Start(const std::string& mode, const std::vector<std::string>& refusals) {
  const std::string python = "/usr/bin/python3";
  const std::string script = std::string(DISCHIVE_SOURCE_DIR) + "/tests/support/smtp_peer.py";
  const std::string folder = dir_.path().string();
  const std::string log = (dir_ / "peer.log").string();
  std::vector<std::string> args = {python, script, folder, mode};
  args.insert(args.end(), refusals.begin(), refusals.end());
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const int spawned = posix_spawn(&pid_, python.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    pid_ = -1;
    error_ = "cannot start " + python;
    return false;
  }
  const std::filesystem::path port_file = dir_ / "port";
  for (int i = 0; i < 500; ++i) {
    const std::string text = ReadFile(port_file);
    if (!text.empty()) {
      port_ = std::stoi(text);
      return true;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      error_ = "smtp_peer.py exited: " + ReadFile(log);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error_ = "smtp_peer.py did not start listening: " + ReadFile(log);
  return false;
}

}  // namespace dischive::test
