#include "platform/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "dischive/errors.h"

namespace dischive::platform {
namespace {

namespace fs = std::filesystem;

// Links followed before giving up, as the kernel's own limit (ELOOP).
constexpr int kMaxLinks = 40;

std::atomic<SyncCall> g_sync{nullptr};

int SyncFd(int fd) {
  const SyncCall call = g_sync.load();
  return call != nullptr ? call(fd) : ::fsync(fd);
}

HResult Failed(int err, const fs::path& path, std::string* error) {
  if (error != nullptr) *error = path.string() + ": " + std::strerror(err);
  return HResultFromErrno(err);
}

HResult Failed(HResult code, const fs::path& path, std::string_view reason, std::string* error) {
  if (error != nullptr) *error = path.string() + ": " + std::string(reason);
  return code;
}

}  // namespace

HResult ResolveLinks(const fs::path& start, fs::path* out, std::string* error) {
  fs::path path = start;
  for (int i = 0; i < kMaxLinks; ++i) {
    std::error_code ec;
    if (!fs::is_symlink(fs::symlink_status(path, ec))) {
      *out = std::move(path);
      return kOk;
    }
    const fs::path next = fs::read_symlink(path, ec);
    if (ec) return Failed(ec.value(), path, error);
    path = next.is_absolute() ? next : path.parent_path() / next;
  }
  return Failed(ELOOP, path, error);
}

namespace {

// Opens a device or FIFO for writing without waiting for a reader: a FIFO
// nobody reads would otherwise block the open forever.
HResult OpenInPlace(const fs::path& path, bool fifo, File* file, std::string* error) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    if (fifo && errno == ENXIO) {
      return Failed(HResultFromErrno(ENXIO), path, "no process is reading this pipe", error);
    }
    return Failed(errno, path, error);
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  *file = File::Adopt(fd);
  return kOk;
}

}  // namespace

FileReplacement::FileReplacement(FileReplacement&& other) noexcept
    : file_(std::move(other.file_)),
      finished_(other.finished_),
      target_(std::move(other.target_)),
      temporary_(std::move(other.temporary_)) {
  other.temporary_.clear();
}

FileReplacement& FileReplacement::operator=(FileReplacement&& other) noexcept {
  if (this != &other) {
    Discard();
    file_ = std::move(other.file_);
    finished_ = other.finished_;
    target_ = std::move(other.target_);
    temporary_ = std::move(other.temporary_);
    other.temporary_.clear();
  }
  return *this;
}

HResult FileReplacement::Begin(const fs::path& target, FileReplacement* out, std::string* error) {
  out->Discard();
  FileReplacement next;
  if (const HResult r = ResolveLinks(target, &next.target_, error)) return r;
  const fs::path& path = next.target_;

  struct stat st {};
  const bool exists = ::stat(path.c_str(), &st) == 0;
  if (!exists && errno != ENOENT) return Failed(errno, path, error);
  if (exists && (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode))) {
    if (const HResult r = OpenInPlace(path, S_ISFIFO(st.st_mode), &next.file_, error)) return r;
    *out = std::move(next);
    return kOk;
  }
  if (exists && S_ISDIR(st.st_mode)) return Failed(EISDIR, path, error);
  if (exists && !S_ISREG(st.st_mode)) {
    return Failed(HResultFromErrno(EINVAL), path, "not a regular file, not replaced", error);
  }

  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  // Hidden, and not matching the target's pattern ("*.jpg"), while incomplete.
  const std::string prefix = "." + path.filename().string() + ".";
  if (const HResult r = File::CreateTemporary(folder, prefix, &next.file_, &next.temporary_)) {
    if (error != nullptr) *error = folder.string() + ": " + std::strerror(errno);
    return r;
  }
  // The new file keeps the permissions of the one it replaces; a new one is
  // readable by all, as a file made by a program normally is.
  const mode_t mode = exists ? (st.st_mode & 07777) : 0644;
  ::fchmod(next.file_.fd(), mode);
  *out = std::move(next);
  return kOk;
}

HResult FileReplacement::Write(std::string_view bytes, std::string* error) {
  // WriteAll fails right after the failing call, so errno still names it.
  if (const HResult r = file_.WriteAll(bytes.data(), bytes.size())) {
    if (error != nullptr) *error = target_.string() + ": " + std::strerror(errno);
    return r;
  }
  return kOk;
}

HResult FileReplacement::Finish(Flush flush, std::string* error) {
  if (finished_) return kOk;
  if (!file_.is_open()) return Failed(EBADF, target_, error);
  if (!writes_through() && flush == Flush::kFileAndFolder && SyncFd(file_.fd()) != 0) {
    const int err = errno;
    Discard();
    return Failed(err, target_, error);
  }
  if (file_.Close() != kOk) {
    const int err = errno;
    Discard();
    return Failed(err, target_, error);
  }
  finished_ = true;
  return kOk;
}

HResult FileReplacement::Commit(Flush flush, std::string* error) {
  if (const HResult r = Finish(flush, error)) return r;
  if (writes_through()) return kOk;
  if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
    const int err = errno;
    Discard();
    return Failed(err, target_, error);
  }
  temporary_.clear();
  if (flush == Flush::kFileAndFolder) {
    const fs::path folder = target_.has_parent_path() ? target_.parent_path() : fs::path(".");
    // The rename is in place already; a folder that cannot be opened or
    // flushed is reported, and the new contents stay.
    const File dir = File::Adopt(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.is_open() || SyncFd(dir.fd()) != 0) return Failed(errno, folder, error);
  }
  return kOk;
}

void FileReplacement::Discard() noexcept {
  file_ = File();
  finished_ = false;
  if (!temporary_.empty()) {
    std::error_code ec;
    fs::remove(temporary_, ec);
    temporary_.clear();
  }
}

HResult ReplaceFile(const fs::path& target, std::string_view bytes, std::string* error) {
  FileReplacement replacement;
  if (const HResult r = FileReplacement::Begin(target, &replacement, error)) return r;
  if (const HResult r = replacement.Write(bytes, error)) return r;
  return replacement.Commit(FileReplacement::Flush::kFileAndFolder, error);
}

void SetSyncCallForTesting(SyncCall call) {
  g_sync.store(call);
}

}  // namespace dischive::platform
