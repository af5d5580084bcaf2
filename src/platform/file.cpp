#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "dischive/errors.h"

namespace dischive::platform {
namespace {

constexpr size_t kBufferedChunk = 65536;
// copy_file_range is asked for this much at a time so that progress and
// cancellation stay responsive on large files.
constexpr size_t kKernelChunk = 8u << 20;

HResult LastError() {
  return HResultFromErrno(errno);
}

HResult OpenFd(const std::filesystem::path& path, int flags, int* fd) {
  do {
    *fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  } while (*fd < 0 && errno == EINTR);
  if (*fd >= 0) return kOk;
  return errno == EEXIST ? kErrorFileExists : LastError();
}

}  // namespace

File::File(File&& other) noexcept : fd_(other.fd_) {
  other.fd_ = -1;
}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

File::~File() {
  if (fd_ >= 0) ::close(fd_);
}

HResult File::OpenRead(const std::filesystem::path& path, File* file) {
  int fd = -1;
  const HResult result = OpenFd(path, O_RDONLY, &fd);
  if (result == kOk) *file = File(fd);
  return result;
}

HResult File::OpenFolder(const std::filesystem::path& path, File* folder) {
  int fd = -1;
  const HResult result = OpenFd(path, O_PATH | O_DIRECTORY, &fd);
  if (result == kOk) *folder = File(fd);
  return result;
}

HResult File::OpenReadAt(const File& folder, const std::string& name, File* file) {
  int fd;
  do {
    fd = ::openat(folder.fd_, name.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return LastError();
  *file = File(fd);
  return kOk;
}

HResult File::CreateExclusive(const std::filesystem::path& path, File* file) {
  int fd = -1;
  const HResult result = OpenFd(path, O_WRONLY | O_CREAT | O_EXCL, &fd);
  if (result == kOk) *file = File(fd);
  return result;
}

HResult File::CreateTemporary(const std::filesystem::path& folder, const std::string& prefix,
                              File* file, std::filesystem::path* path) {
  std::string pattern = (folder / (prefix + "XXXXXX")).string();
  const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return LastError();
  *file = File(fd);
  *path = pattern;
  return kOk;
}

HResult File::Size(uint64_t* size) const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return LastError();
  *size = static_cast<uint64_t>(st.st_size);
  return kOk;
}

HResult File::ReadAt(uint64_t offset, void* data, size_t size, size_t* got) const {
  auto* out = static_cast<char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pread(fd_, out + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      *got = done;
      return LastError();
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
    // A regular file answers in full up to its end, so a short answer is the
    // end: asking again only to read 0 would double the cost of small reads.
    if (done < size) break;
  }
  *got = done;
  return kOk;
}

HResult File::WriteAll(const void* data, size_t size) {
  const auto* in = static_cast<const char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(fd_, in + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return LastError();
    }
    if (n == 0) return HResultFromErrno(ENOSPC);
    done += static_cast<size_t>(n);
  }
  return kOk;
}

HResult File::CopyFrom(const File& source, uint64_t source_offset, uint64_t size,
                       const CopyStep& step) {
  uint64_t copied = 0;
  bool kernel = true;
  std::vector<char> buffer;
  while (copied < size) {
    const uint64_t left = size - copied;
    if (kernel) {
      loff_t in_offset = static_cast<loff_t>(source_offset + copied);
      const size_t want = left < kKernelChunk ? static_cast<size_t>(left) : kKernelChunk;
      const ssize_t n = ::copy_file_range(source.fd_, &in_offset, fd_, nullptr, want, 0);
      if (n < 0) {
        if (errno == EINTR) continue;
        // Not supported between these files (other file system, old kernel,
        // special file): fall back to reading and writing.
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
            errno == EBADF) {
          kernel = false;
          continue;
        }
        return LastError();
      }
      if (n == 0) return kErrorHandleEof;
      copied += static_cast<uint64_t>(n);
    } else {
      if (buffer.empty()) buffer.resize(kBufferedChunk);
      const size_t want = left < buffer.size() ? static_cast<size_t>(left) : buffer.size();
      size_t got = 0;
      if (const HResult r = source.ReadAt(source_offset + copied, buffer.data(), want, &got)) {
        return r;
      }
      if (got == 0) return kErrorHandleEof;
      if (const HResult r = WriteAll(buffer.data(), got)) return r;
      copied += got;
    }
    if (step && !step(copied)) return kAborted;
  }
  return kOk;
}

HResult File::Sync() {
  return ::fsync(fd_) == 0 ? kOk : LastError();
}

HResult File::Close() {
  if (fd_ < 0) return kOk;
  const int fd = fd_;
  fd_ = -1;
  // close() is not retried on EINTR: the descriptor is released either way.
  return ::close(fd) == 0 || errno == EINTR ? kOk : LastError();
}

HResult SyncFileSystem(const std::filesystem::path& path) {
  int fd = -1;
  if (const HResult r = OpenFd(path, O_RDONLY, &fd)) return r;
  const int rc = ::syncfs(fd);
  const int err = errno;
  ::close(fd);
  return rc == 0 ? kOk : HResultFromErrno(err);
}

HResult SyncFolder(const std::filesystem::path& folder) {
  int fd = -1;
  if (const HResult r = OpenFd(folder, O_RDONLY | O_DIRECTORY, &fd)) return r;
  const int rc = ::fsync(fd);
  const int err = errno;
  ::close(fd);
  return rc == 0 ? kOk : HResultFromErrno(err);
}

}  // namespace dischive::platform
