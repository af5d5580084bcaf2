// The SQLite catalogue engine: the artist dictionary, database properties,
// user lists, and the suspension of writing while the file is copied.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "catalog/sqlite_engine.h"
#include "dischive/database_files.h"

namespace dischive::catalog {

std::vector<ArtistEntry> SqliteCatalog::Artists() {
  std::lock_guard lock(mutex_);
  std::vector<ArtistEntry> artists;
  Guard([&] {
    Transaction snapshot(db_);
    {
      Statement& s = st_->list_artists;
      ResetGuard reset(s);
      while (s.Step()) {
        ArtistEntry& a = artists.emplace_back();
        a.name = s.Text(0);
        a.is_band = s.Int(1) != 0;
        a.sort_name = s.Text(2);
        a.country = s.Text(3);
        a.date_formed = U32(s.Int(4));
        a.date_disbanded = U32(s.Int(5));
      }
    }
    for (ArtistEntry& a : artists) {
      Statement& alt = st_->artist_alt_names;
      {
        ResetGuard reset(alt);
        alt.Bind(1, a.name);
        while (alt.Step())
          a.alt_names.push_back(alt.Text(0));
      }
      Statement& links = st_->artist_links;
      ResetGuard reset(links);
      links.Bind(1, a.name);
      while (links.Step())
        a.links.push_back({links.Text(0), links.Text(1)});
    }
    snapshot.Commit();
  });
  return artists;
}

uint32_t SqliteCatalog::ArtistsModified() {
  std::lock_guard lock(mutex_);
  uint32_t result = 0;
  Guard([&] { result = U32(GetMeta("artists_modified")); });
  return result;
}

HResult SqliteCatalog::WriteArtist(const ArtistEntry& artist) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    if (artist.name.empty()) throw Refusal{kInvalidArgument, "an artist needs a name"};
    Transaction transaction(db_);
    st_->delete_artist.Bind(1, artist.name).Run();
    Statement& s = st_->insert_artist;
    s.Bind(1, artist.name).Bind(2, artist.is_band ? 1 : 0).Bind(3, artist.sort_name);
    s.Bind(4, artist.country).Bind(5, int64_t{artist.date_formed});
    s.Bind(6, int64_t{artist.date_disbanded});
    s.Run();
    for (size_t i = 0; i < artist.alt_names.size(); ++i) {
      st_->insert_alt_name.Bind(1, artist.name)
          .Bind(2, static_cast<int64_t>(i))
          .Bind(3, artist.alt_names[i])
          .Run();
    }
    for (size_t i = 0; i < artist.links.size(); ++i) {
      st_->insert_link.Bind(1, artist.name)
          .Bind(2, static_cast<int64_t>(i))
          .Bind(3, artist.links[i].name)
          .Bind(4, artist.links[i].description)
          .Run();
    }
    SetMeta("artists_modified", Now());
    transaction.Commit();
  });
}

HResult SqliteCatalog::RemoveArtist(std::string_view name) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    Transaction transaction(db_);
    st_->delete_artist.Bind(1, name).Run();
    if (sqlite3_changes(db_.handle()) == 0) {
      throw Refusal{kCatalogNotFound, fmt::format("no artist \"{}\"", name)};
    }
    SetMeta("artists_modified", Now());
    transaction.Commit();
  });
}

std::optional<std::string> SqliteCatalog::GetDatabaseProperty(std::string_view group,
                                                              std::string_view key) {
  std::lock_guard lock(mutex_);
  std::optional<std::string> result;
  Guard([&] { result = GetProperty(group, key); });
  return result;
}

HResult SqliteCatalog::SetDatabaseProperty(std::string_view group, std::string_view key,
                                           std::string_view value) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    if (group.empty() || key.empty()) {
      throw Refusal{kInvalidArgument, "a database property needs a group and a key"};
    }
    st_->set_db_prop.Bind(1, group).Bind(2, key).Bind(3, value).Run();
  });
}

HResult SqliteCatalog::RemoveDatabaseProperty(std::string_view group, std::string_view key) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] { st_->delete_db_prop.Bind(1, group).Bind(2, key).Run(); });
}

std::vector<std::pair<std::string, std::string>> SqliteCatalog::DatabaseProperties(
    std::string_view group) {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, std::string>> result;
  Guard([&] {
    Statement& s = st_->list_db_props;
    ResetGuard reset(s);
    s.Bind(1, group);
    while (s.Step())
      result.emplace_back(s.Text(0), s.Text(1));
  });
  return result;
}

std::string SqliteCatalog::UserList(std::string_view key) {
  std::lock_guard lock(mutex_);
  std::optional<std::string> stored;
  Guard([&] { stored = GetProperty(kDatabaseOptionsGroup, key); });
  return stored ? *stored : DefaultUserList(key);
}

HResult SqliteCatalog::SetUserList(std::string_view key, std::string_view text) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    if (key.empty()) throw Refusal{kInvalidArgument, "a user list needs a key"};
    Transaction transaction(db_);
    st_->set_db_prop.Bind(1, kDatabaseOptionsGroup).Bind(2, key).Bind(3, text).Run();
    st_->set_db_prop.Bind(1, kDatabaseOptionsGroup)
        .Bind(2, "t_" + std::string(key))
        .Bind(3, std::to_string(Now()))
        .Run();
    transaction.Commit();
  });
}

uint32_t SqliteCatalog::UserListTimestamp(std::string_view key) {
  std::lock_guard lock(mutex_);
  std::optional<std::string> stored;
  Guard([&] { stored = GetProperty(kDatabaseOptionsGroup, "t_" + std::string(key)); });
  if (!stored) return 0;
  const std::optional<int32_t> value = ParseSettingsInt(*stored);
  return value ? static_cast<uint32_t>(*value) : 0;
}

HResult SqliteCatalog::SuspendWriting() {
  std::unique_lock lock(mutex_);
  if (suspended_) {
    return Refuse(kCatalogLocked, "writing to the catalogue is already suspended");
  }
  if (batch_depth_ > 0) {
    return Refuse(kCatalogLocked, "a batch of writes is still open");
  }
  if (writable_) {
    int log_frames = 0, checkpointed = 0;
    const int rc = sqlite3_wal_checkpoint_v2(db_.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                             &log_frames, &checkpointed);
    if (rc != SQLITE_OK) {
      if (catalog::IsFatalSqliteCode(rc))
        throw FatalDatabaseError(path_.string(), sqlite3_errmsg(db_.handle()));
      return Refuse(kCatalogLocked, std::string("the write-ahead log cannot be emptied: ") +
                                        sqlite3_errmsg(db_.handle()));
    }
  } else {
    // A reader holds writers off by taking the write lock itself, then
    // empties a log a crashed writer may have left behind.
    const int error = suspend_lock_.TryLock(CatalogLockPath(path_));
    if (error == EWOULDBLOCK) {
      return Refuse(kCatalogLocked, "another process is writing to " + path_.string());
    }
    if (error != 0) {
      return Refuse(kFail, "cannot lock " + path_.string() + ": " + std::strerror(error));
    }
    std::error_code ec;
    std::filesystem::path wal = path_;
    wal += "-wal";
    if (std::filesystem::file_size(wal, ec) > 0 && !ec) {
      Connection writer;
      std::string message;
      int rc = writer.Open(path_, SQLITE_OPEN_READWRITE, &message);
      if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(writer.handle(), 5000);
        rc = sqlite3_wal_checkpoint_v2(writer.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                       nullptr, nullptr);
        if (rc != SQLITE_OK) message = sqlite3_errmsg(writer.handle());
      }
      if (rc != SQLITE_OK) {
        suspend_lock_.Release();
        return Refuse(kCatalogLocked, "the write-ahead log cannot be emptied: " + message);
      }
    }
  }
  suspended_ = true;
  suspender_ = std::this_thread::get_id();
  return kOk;
}

void SqliteCatalog::ResumeWriting() {
  std::unique_lock lock(mutex_);
  suspended_ = false;
  suspend_lock_.Release();
  resumed_.notify_all();
}

std::string SqliteCatalog::LastErrorText() const {
  std::lock_guard lock(mutex_);
  return last_error_;
}

HResult SqliteCatalog::Refuse(HResult code, std::string message) {
  last_error_ = std::move(message);
  return code;
}

// Whether this engine may write now; waits while another thread of this
// process has writing suspended for a copy of the file.
HResult SqliteCatalog::CheckWritable(std::unique_lock<std::recursive_mutex>& lock) {
  if (!writable_) return Refuse(kCatalogReadOnly, path_.string() + " is open for reading only");
  while (suspended_) {
    if (suspender_ == std::this_thread::get_id()) {
      return Refuse(kCatalogLocked, "writing is suspended while the catalogue is copied");
    }
    resumed_.wait(lock);
  }
  return kOk;
}

std::optional<std::string> SqliteCatalog::GetProperty(std::string_view group,
                                                      std::string_view key) {
  Statement& s = st_->get_db_prop;
  ResetGuard reset(s);
  s.Bind(1, group).Bind(2, key);
  if (!s.Step()) return std::nullopt;
  return s.Text(0);
}

int64_t SqliteCatalog::GetMeta(std::string_view key) {
  Statement& s = st_->get_meta;
  ResetGuard reset(s);
  s.Bind(1, key);
  return s.Step() ? s.Int(0) : 0;
}

void SqliteCatalog::SetMeta(std::string_view key, int64_t value) {
  st_->set_meta.Bind(1, key).Bind(2, value).Run();
}

}  // namespace dischive::catalog
