// Read-only files on POSIX: open, pread, fstat.
#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace dischive::platform {

std::unique_ptr<ReadOnlyFile> ReadOnlyFile::Open(const std::filesystem::path& path,
                                                 HResult& error) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    error = errno == ENOENT || errno == ENOTDIR ? kErrorFileNotFound
            : errno == EACCES || errno == EPERM ? kErrorAccessDenied
                                                : kFail;
    return nullptr;
  }
  error = kOk;
  return std::unique_ptr<ReadOnlyFile>(new ReadOnlyFile(fd));
}

ReadOnlyFile::~ReadOnlyFile() {
  ::close(fd_);
}

int64_t ReadOnlyFile::ReadAt(int64_t offset, void* buffer, size_t count) {
  // A regular file answers in full up to its end, so one call suffices; a
  // second call only to learn that the end is reached would double the cost
  // of reading a small file.
  for (;;) {
    const ssize_t n = ::pread(fd_, buffer, count, static_cast<off_t>(offset));
    if (n >= 0) return n;
    if (errno != EINTR) return -1;
  }
}

int64_t ReadOnlyFile::Size() {
  struct stat info;
  if (::fstat(fd_, &info) != 0) return -1;
  return static_cast<int64_t>(info.st_size);
}

}  // namespace dischive::platform
