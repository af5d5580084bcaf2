// ByteSource over memory and over a file.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dischive/tag_readers.h"

namespace dischive {

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
  const int64_t base = from == SeekFrom::kStart ? 0 : pos_;
  // Refuse targets before the start and sums that would overflow.
  if (offset < -base || (offset > 0 && base > INT64_MAX - offset)) return false;
  pos_ = base + offset;
  return true;
}

std::unique_ptr<FileSource> FileSource::Open(const std::filesystem::path& path, HResult& error) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    error = errno == ENOENT || errno == ENOTDIR ? kErrorFileNotFound
            : errno == EACCES || errno == EPERM ? kErrorAccessDenied
                                                : kFail;
    return nullptr;
  }
  // The window does the buffering; the stream's own buffer would only copy twice.
  std::setvbuf(file, nullptr, _IONBF, 0);
  error = kOk;
  return std::unique_ptr<FileSource>(new FileSource(file));
}

FileSource::FileSource(std::FILE* file) : file_(file), window_(new uint8_t[kWindowSize]) {}

FileSource::~FileSource() {
  std::fclose(file_);
}

size_t FileSource::ReadAt(int64_t offset, void* buffer, size_t count) {
  if (offset != file_pos_) {
    if (std::fseek(file_, static_cast<long>(offset), SEEK_SET) != 0) return 0;
    file_pos_ = offset;
  }
  const size_t n = std::fread(buffer, 1, count, file_);
  file_pos_ += static_cast<int64_t>(n);
  if (n < count) std::clearerr(file_);
  return n;
}

size_t FileSource::Read(void* buffer, size_t count) {
  auto* out = static_cast<uint8_t*>(buffer);
  size_t total = 0;
  while (count > 0) {
    if (pos_ >= window_start_ && pos_ - window_start_ < static_cast<int64_t>(window_len_)) {
      const size_t offset = static_cast<size_t>(pos_ - window_start_);
      const size_t n = std::min(count, window_len_ - offset);
      std::memcpy(out, window_.get() + offset, n);
      out += n;
      count -= n;
      total += n;
      pos_ += static_cast<int64_t>(n);
      continue;
    }
    if (count >= kWindowSize) {
      // Large reads (pictures, big comment blocks) go straight to the caller.
      const size_t n = ReadAt(pos_, out, count);
      pos_ += static_cast<int64_t>(n);
      return total + n;
    }
    window_len_ = ReadAt(pos_, window_.get(), kWindowSize);
    window_start_ = pos_;
    if (window_len_ == 0) break;
  }
  return total;
}

bool FileSource::Seek(int64_t offset, SeekFrom from) {
  const int64_t base = from == SeekFrom::kStart ? 0 : pos_;
  if (offset < -base || (offset > 0 && base > INT64_MAX - offset)) return false;
  pos_ = base + offset;
  return true;
}

int64_t FileSource::Size() {
  if (size_ == -2) {
    size_ = -1;
    if (std::fseek(file_, 0, SEEK_END) == 0) {
      const long end = std::ftell(file_);
      if (end >= 0) size_ = end;
    }
    file_pos_ = -1;  // unknown now: the next read seeks
  }
  return size_;
}

}  // namespace dischive
