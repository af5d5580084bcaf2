#include "platform/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace dischive::platform {

FileLock::~FileLock() {
  Release();
}

FileLock::FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    Release();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

int FileLock::TryLock(const std::filesystem::path& path) {
  Release();
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  int rc;
  do {
    rc = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    const int error = errno == EAGAIN ? EWOULDBLOCK : errno;
    ::close(fd);
    return error;
  }
  fd_ = fd;
  return 0;
}

void FileLock::Release() noexcept {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
    fd_ = -1;
  }
}

std::filesystem::path ExecutableFolder() {
  std::error_code ec;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec || exe.empty()) return {};
  return exe.parent_path();
}

}  // namespace dischive::platform
