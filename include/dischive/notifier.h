// Live play and rating notices: when the user plays or rates an album that the
// collection service knows, one GET "/peek" request tells the service at once,
// so that the online copy follows without a full sync. The requests run on a
// thread of their own, at most one a second; failures are silent (the next
// full sync makes a lost notice good).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "dischive/catalog.h"
#include "dischive/http.h"
#include "dischive/settings.h"

namespace dischive {

/// What a notice reports.
enum class NotifyKind : uint32_t { kRating = 1, kPlay = 2 };

/// One notice: the album's service identifier, the kind, the rating (0 for a
/// play) and the catalogue's 32-bit time stamp.
struct NotifyEvent {
  std::string album_id;
  NotifyKind kind = NotifyKind::kPlay;
  int32_t rating = 0;
  uint32_t time = 0;
};

/// The settings taken when the notifier starts.
struct NotifierSettings {
  std::string login;          ///< "db_opts"/"sync_login"
  std::string dbkey;          ///< "db_opts"/"sync_dbkey"
  std::string host;           ///< "host" or "host:port" of the service
  InternetSettings internet;  ///< proxy mode and agent, copied at start
  std::string extra_headers;  ///< added to every request
  /// Pause after each notice, so that at most one a second reaches the service.
  std::chrono::milliseconds interval{1000};
  std::chrono::milliseconds receive_timeout{30000};
};

/// The request path of a notice, with login, album and key percent-encoded
/// (plain values stay as they are); empty for an unknown kind.
std::string NoticePath(const NotifierSettings& settings, const NotifyEvent& event);

/// The address that shows an album on the service:
/// "http://HOST/peek?u=LOGIN&t=redir&a=ALBUM&d=KEY"; nullopt when the login,
/// the album or the key is empty.
std::optional<std::string> BuildAlbumPageUrl(std::string_view host, std::string_view login,
                                             std::string_view album_id, std::string_view dbkey);
/// The same with login and key read from the catalogue ("db_opts").
std::optional<std::string> BuildAlbumPageUrl(CatalogEngine& catalog, std::string_view host,
                                             std::string_view album_id);

/// The notifier thread and its mailbox. Posting never blocks; the thread sends
/// the notices in posting order. Quit (or destruction) discards the notices
/// still queued; so does the owner going away (the owner is any object whose
/// lifetime stands for the window that started the notifier).
class PlayRatingNotifier {
 public:
  /// Starts the thread when both login and key are non-empty; otherwise
  /// returns nullptr (nothing runs and notices are ignored).
  static std::unique_ptr<PlayRatingNotifier> Start(NotifierSettings settings,
                                                   std::weak_ptr<const void> owner);
  /// Reads login and key from the catalogue ("db_opts") and the rest from
  /// the settings store ("internet2"), then starts as above.
  static std::unique_ptr<PlayRatingNotifier> Start(CatalogEngine& catalog,
                                                   const SettingsStore& settings,
                                                   std::weak_ptr<const void> owner);
  ~PlayRatingNotifier();
  PlayRatingNotifier(const PlayRatingNotifier&) = delete;
  PlayRatingNotifier& operator=(const PlayRatingNotifier&) = delete;

  /// Queues a notice; one with an empty album identifier is dropped.
  void Post(NotifyEvent event);
  /// A rating notice for an album (rating field, its time when the rating is
  /// 1 or more, else 0), posted only when `live_updates` is on and the album
  /// has a service identifier. Returns true when it was posted.
  bool NotifyRated(const AlbumRecord& album, bool live_updates);
  /// A play notice with the album's last-played time; same conditions.
  bool NotifyPlayed(const AlbumRecord& album, bool live_updates);

  /// Blocks until every queued notice has been handled (sent or discarded).
  void WaitUntilIdle();
  /// Posts the quit message and waits for the thread; queued notices are
  /// discarded unsent.
  void Quit();

  /// Notices sent so far (whatever the service answered).
  size_t sent() const;

 private:
  PlayRatingNotifier(NotifierSettings settings, std::weak_ptr<const void> owner);
  void Run();

  const NotifierSettings settings_;
  const std::weak_ptr<const void> owner_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<NotifyEvent> queue_;
  bool quit_ = false;
  bool busy_ = false;
  size_t sent_ = 0;
  std::thread thread_;
};

/// Whether "db_opts"/"sync_live_updates" is on in the catalogue.
bool LiveUpdatesEnabled(CatalogEngine& catalog);

}  // namespace dischive
