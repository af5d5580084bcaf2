#include "platform/file_find.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace dischive::platform {

int ListFolder(const std::filesystem::path& folder, std::vector<FolderEntry>& entries,
               const std::function<bool(std::string_view name)>& wants_status) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return errno;
  const int fd = ::dirfd(dir);
  int error = 0;
  for (;;) {
    errno = 0;
    const dirent* de = ::readdir(dir);
    if (de == nullptr) {
      error = errno;
      break;
    }
    const std::string_view name = de->d_name;
    if (name == "." || name == "..") continue;
    FolderEntry entry;
    entry.name = std::string(name);
    entry.is_symlink = de->d_type == DT_LNK;
    if (de->d_type == DT_UNKNOWN || (wants_status && wants_status(name))) {
      struct stat st {};
      if (::fstatat(fd, de->d_name, &st, 0) != 0) {
        if (de->d_type != DT_LNK) continue;  // vanished
      } else {
        entry.is_directory = S_ISDIR(st.st_mode);
        entry.is_regular = S_ISREG(st.st_mode);
        entry.size = static_cast<uint64_t>(st.st_size);
        entry.mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
      }
      if (de->d_type == DT_UNKNOWN) {
        struct stat lst {};
        entry.is_symlink =
            ::fstatat(fd, de->d_name, &lst, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(lst.st_mode);
      }
    } else {
      entry.is_directory = de->d_type == DT_DIR;
      entry.is_regular = de->d_type == DT_REG;
    }
    entries.push_back(std::move(entry));
  }
  ::closedir(dir);
  return entries.empty() ? error : 0;
}

}  // namespace dischive::platform
