// Live play and rating notices: when the user plays or rates an album that the
// collection service knows, one GET "/peek" request tells the service at once,
// so that the online copy follows without a full sync. The requests run on a
// thread of their own, at most one a second; failures are silent (the next
// full sync makes a lost notice good).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "dischive/catalog.h"
#include "dischive/host.h"
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

/// The thread message that carries one notice; its payload is the
/// `NotifyEvent`, whose ownership passes with the message.
inline constexpr uint32_t kNotifyMessage = 0x83EA;

/// The notifier: one thread (`NotifierThread`) fed by a `ThreadMailbox`.
/// Posting never blocks; the thread sends the notices in posting order, at most
/// one per interval. A quit message waiting in the mailbox discards the notices
/// still queued; so does the owner window being closed. Created by
/// `StartNotifier`; destroying it quits the thread.
///
/// The owner window is held by a shared_ptr: the notifier asks it `alive()`
/// before every notice, so the window object must stay valid for as long as the
/// thread runs, while the host closes it (alive() turns false) whenever it likes.
/// The catalogue given to `StartNotifier` must outlive the notifier; it is read
/// only on the posting thread (for the live-updates option).
class PlayRatingNotifier {
 public:
  ~PlayRatingNotifier();
  PlayRatingNotifier(const PlayRatingNotifier&) = delete;
  PlayRatingNotifier& operator=(const PlayRatingNotifier&) = delete;

  /// Posts a notice as message 0x83EA; one with an empty album identifier, or
  /// one posted after Quit(), is dropped (false).
  bool Post(NotifyEvent event);
  /// A rating notice for an album (rating field, its time when the rating is
  /// 1 or more, else 0), posted only when the catalogue's "db_opts"/
  /// "sync_live_updates" is on and the album has a service identifier.
  /// Returns true when it was posted.
  bool NotifyRated(const AlbumRecord& album);
  /// A play notice with the album's last-played time; same conditions.
  bool NotifyPlayed(const AlbumRecord& album);

  /// Blocks until every posted notice has been handled (sent or discarded) or
  /// the thread has quit.
  void WaitUntilIdle();
  /// Posts the quit message and waits for the thread; queued notices are
  /// discarded unsent and later posts are dropped.
  void Quit();

  /// Notices sent so far (whatever the service answered).
  size_t sent() const;

 private:
  friend std::unique_ptr<PlayRatingNotifier> StartNotifier(CatalogEngine&, NotifierSettings,
                                                           std::shared_ptr<HostWindow>);
  PlayRatingNotifier(CatalogEngine& catalog, NotifierSettings settings,
                     std::shared_ptr<HostWindow> owner);
  void NotifierThread();
  void Send(const NotifyEvent& event, HttpSession& session);
  void Handled(bool sent);

  CatalogEngine& catalog_;
  const NotifierSettings settings_;
  const std::shared_ptr<HostWindow> owner_;
  ThreadMailbox mailbox_;
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  size_t pending_ = 0;  ///< posted notices the thread has not handled yet
  size_t sent_ = 0;
  bool stopped_ = false;
  std::thread thread_;
};

/// Starts the notifier for a catalogue: login and key are read from its
/// "db_opts" options "sync_login"/"sync_dbkey" (replacing those in
/// `settings`); only when both are non-empty does the thread start. Otherwise,
/// or without an owner window, returns nullptr: nothing runs and there is
/// nothing to post notices to.
std::unique_ptr<PlayRatingNotifier> StartNotifier(CatalogEngine& catalog, NotifierSettings settings,
                                                  std::shared_ptr<HostWindow> owner);
/// The same with the service host and connection settings read from the
/// settings store ("internet2").
std::unique_ptr<PlayRatingNotifier> StartNotifier(CatalogEngine& catalog,
                                                  const SettingsStore& settings,
                                                  std::shared_ptr<HostWindow> owner);

/// Whether "db_opts"/"sync_live_updates" is on in the catalogue.
bool LiveUpdatesEnabled(CatalogEngine& catalog);

}  // namespace dischive
