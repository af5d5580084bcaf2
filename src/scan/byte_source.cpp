// ByteSource over memory and over a file.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dischive/errors.h"
#include "platform/file.h"
#include "scan/tag_readers.h"

namespace dischive {
namespace {

// Moves `pos` for both sources; refuses targets before the start and sums
// that would overflow.
bool MovePosition(int64_t& pos, int64_t offset, SeekFrom from) {
  const int64_t base = from == SeekFrom::kStart ? 0 : pos;
  if (offset < -base || (offset > 0 && base > INT64_MAX - offset)) return false;
  pos = base + offset;
  return true;
}

// The readers' callers expect the plain Win32 numbers for the usual cases.
HResult OpenError(HResult error) {
  if (error == HResultFromErrno(ENOENT) || error == HResultFromErrno(ENOTDIR)) {
    return kErrorFileNotFound;
  }
  if (error == HResultFromErrno(EACCES) || error == HResultFromErrno(EPERM)) {
    return kErrorAccessDenied;
  }
  return error == kOk ? kOk : kFail;
}

}  // namespace

size_t MemorySource::Read(void* buffer, size_t count) {
  const auto size = static_cast<int64_t>(bytes_.size());
  if (pos_ >= size || count == 0) return 0;
  const size_t available = static_cast<size_t>(size - pos_);
  const size_t n = count < available ? count : available;
  std::memcpy(buffer, bytes_.data() + pos_, n);
  pos_ += static_cast<int64_t>(n);
  return n;
}

bool MemorySource::Seek(int64_t offset, SeekFrom from) {
  return MovePosition(pos_, offset, from);
}

std::unique_ptr<FileSource> FileSource::Open(const std::filesystem::path& path, HResult& error) {
  auto file = std::make_unique<platform::File>();
  error = OpenError(platform::File::OpenRead(path, file.get()));
  if (error != kOk) return nullptr;
  return std::unique_ptr<FileSource>(new FileSource(std::move(file)));
}

std::unique_ptr<FileSource> FileSource::OpenAt(const platform::File& folder,
                                               const std::string& name, HResult& error) {
  auto file = std::make_unique<platform::File>();
  error = OpenError(platform::File::OpenReadAt(folder, name, file.get()));
  if (error != kOk) return nullptr;
  return std::unique_ptr<FileSource>(new FileSource(std::move(file)));
}

FileSource::FileSource(std::unique_ptr<platform::File> file) : file_(std::move(file)) {}

FileSource::~FileSource() = default;

size_t FileSource::Read(void* buffer, size_t count) {
  auto* out = static_cast<uint8_t*>(buffer);
  size_t total = 0;
  while (count > 0) {
    if (pos_ >= window_start_ && pos_ - window_start_ < static_cast<int64_t>(window_len_)) {
      const size_t offset = static_cast<size_t>(pos_ - window_start_);
      const size_t n = std::min(count, window_len_ - offset);
      std::memcpy(out, window_ + offset, n);
      out += n;
      count -= n;
      total += n;
      pos_ += static_cast<int64_t>(n);
      continue;
    }
    if (size_ >= 0 && pos_ >= size_) break;
    if (count >= kWindowSize) {
      // Large reads (pictures, big comment blocks) go straight to the caller.
      size_t got = 0;
      if (file_->ReadAt(static_cast<uint64_t>(pos_), out, count, &got) != kOk || got == 0) break;
      const auto n = static_cast<int64_t>(got);
      pos_ += n;
      return total + static_cast<size_t>(n);
    }
    size_t got = 0;
    const bool ok = file_->ReadAt(static_cast<uint64_t>(pos_), window_, kWindowSize, &got) == kOk;
    const int64_t n = ok ? static_cast<int64_t>(got) : -1;
    window_start_ = pos_;
    window_len_ = n > 0 ? static_cast<size_t>(n) : 0;
    // A short read ends at the end of the file: its size is known for free.
    if (n > 0 && static_cast<size_t>(n) < kWindowSize && size_ == -2) size_ = pos_ + n;
    if (n <= 0) break;
  }
  return total;
}

bool FileSource::Seek(int64_t offset, SeekFrom from) {
  return MovePosition(pos_, offset, from);
}

int64_t FileSource::Size() {
  uint64_t size = 0;
  if (size_ == -2) size_ = file_->Size(&size) == kOk ? static_cast<int64_t>(size) : -1;
  return size_;
}

}  // namespace dischive
