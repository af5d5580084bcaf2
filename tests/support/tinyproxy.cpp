#include "support/tinyproxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

extern char** environ;

namespace dischive::test {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A port the kernel just handed out and released again.
int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in addr = Loopback(0);
  socklen_t length = sizeof addr;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

bool Accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in addr = Loopback(port);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

std::string FindTinyproxy() {
  for (const char* candidate : {"/usr/bin/tinyproxy", "/usr/sbin/tinyproxy"}) {
    if (access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace

TinyproxyProcess::~TinyproxyProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
}

bool TinyproxyProcess::Start() {
  const std::string program = FindTinyproxy();
  if (program.empty()) {
    error_ = "tinyproxy is not installed";
    return false;
  }
  port_ = FreeLoopbackPort();
  if (port_ <= 0) {
    error_ = "no free port";
    return false;
  }
  const std::filesystem::path config = dir_ / "tinyproxy.conf";
  std::string text = "Port " + std::to_string(port_) +
                     "\nListen 127.0.0.1\nTimeout 30\nMaxClients 20\nAllow 127.0.0.1\n"
                     "ViaProxyName \"" +
                     kViaName + "\"\n";
  if (geteuid() == 0) text += "User nobody\nGroup nogroup\n";
  WriteFile(config, text);
  const std::string log = (dir_ / "tinyproxy.log").string();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const std::string config_text = config.string();
  char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("-d"),
                  const_cast<char*>("-c"), const_cast<char*>(config_text.c_str()), nullptr};
  const int spawned = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    pid_ = -1;
    error_ = "cannot start tinyproxy";
    return false;
  }
  for (int i = 0; i < 250; ++i) {
    if (Accepts(port_)) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      error_ = "tinyproxy exited: " + ReadFile(log);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error_ = "tinyproxy did not start listening: " + ReadFile(log);
  return false;
}

}  // namespace dischive::test
