// The play and rating notifier: a mailbox of notices drained by one thread.
#include "dischive/notifier.h"

#include <fmt/format.h>

#include "dischive/codec.h"
#include "dischive/fields.h"
#include "dischive/service.h"

namespace dischive {

std::string NoticePath(const NotifierSettings& settings, const NotifyEvent& event) {
  // The values are percent-encoded: a login with "&" or a blank must not
  // change the meaning of the query. Hexadecimal ids and plain names pass
  // unchanged.
  const std::string login = PercentEncode(settings.login);
  const std::string album = PercentEncode(event.album_id);
  const std::string key = PercentEncode(settings.dbkey);
  switch (event.kind) {
    case NotifyKind::kRating:
      return fmt::format("/peek?u={}&t=rate&a={}&d={}&r={}&s={}", login, album, key, event.rating,
                         event.time);
    case NotifyKind::kPlay:
      return fmt::format("/peek?u={}&t=play&a={}&d={}&s={}", login, album, key, event.time);
  }
  return {};
}

std::optional<std::string> BuildAlbumPageUrl(std::string_view host, std::string_view login,
                                             std::string_view album_id, std::string_view dbkey) {
  if (login.empty() || album_id.empty() || dbkey.empty()) return std::nullopt;
  return fmt::format("http://{}/peek?u={}&t=redir&a={}&d={}", host, PercentEncode(login),
                     PercentEncode(album_id), PercentEncode(dbkey));
}

std::optional<std::string> BuildAlbumPageUrl(CatalogEngine& catalog, std::string_view host,
                                             std::string_view album_id) {
  return BuildAlbumPageUrl(host, catalog.GetDatabaseProperty("db_opts", "sync_login").value_or(""),
                           album_id,
                           catalog.GetDatabaseProperty("db_opts", "sync_dbkey").value_or(""));
}

bool LiveUpdatesEnabled(CatalogEngine& catalog) {
  const std::string value =
      catalog.GetDatabaseProperty("db_opts", "sync_live_updates").value_or("");
  return !value.empty() && value != "0";
}

std::unique_ptr<PlayRatingNotifier> PlayRatingNotifier::Start(NotifierSettings settings,
                                                              std::weak_ptr<const void> owner) {
  if (settings.login.empty() || settings.dbkey.empty()) return nullptr;
  std::unique_ptr<PlayRatingNotifier> notifier(
      new PlayRatingNotifier(std::move(settings), std::move(owner)));
  notifier->thread_ = std::thread([n = notifier.get()] { n->Run(); });
  return notifier;
}

std::unique_ptr<PlayRatingNotifier> PlayRatingNotifier::Start(CatalogEngine& catalog,
                                                              const SettingsStore& settings,
                                                              std::weak_ptr<const void> owner) {
  NotifierSettings s;
  s.login = catalog.GetDatabaseProperty("db_opts", "sync_login").value_or("");
  s.dbkey = catalog.GetDatabaseProperty("db_opts", "sync_dbkey").value_or("");
  s.host = ConfiguredServiceHost(settings);
  s.internet = LoadInternetSettings(settings);
  return Start(std::move(s), std::move(owner));
}

PlayRatingNotifier::PlayRatingNotifier(NotifierSettings settings, std::weak_ptr<const void> owner)
    : settings_(std::move(settings)), owner_(std::move(owner)) {}

PlayRatingNotifier::~PlayRatingNotifier() {
  Quit();
}

void PlayRatingNotifier::Post(NotifyEvent event) {
  if (event.album_id.empty()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (quit_) return;
    queue_.push_back(std::move(event));
  }
  wake_.notify_one();
}

bool PlayRatingNotifier::NotifyRated(const AlbumRecord& album, bool live_updates) {
  const std::string id = album.properties.Text(field::kServiceId);
  if (!live_updates || id.empty()) return false;
  NotifyEvent event{id, NotifyKind::kRating, album.properties.Int(field::kRating), 0};
  // The rating time means nothing for an album that has no rating.
  if (event.rating >= 1)
    event.time = static_cast<uint32_t>(album.properties.Int(field::kRatingTime));
  Post(std::move(event));
  return true;
}

bool PlayRatingNotifier::NotifyPlayed(const AlbumRecord& album, bool live_updates) {
  const std::string id = album.properties.Text(field::kServiceId);
  if (!live_updates || id.empty()) return false;
  Post({id, NotifyKind::kPlay, 0, static_cast<uint32_t>(album.properties.Int(field::kLastPlayed))});
  return true;
}

void PlayRatingNotifier::WaitUntilIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return (queue_.empty() && !busy_) || quit_; });
}

void PlayRatingNotifier::Quit() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    quit_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  idle_.notify_all();
}

size_t PlayRatingNotifier::sent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}

void PlayRatingNotifier::Run() {
  HttpSession session;
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return quit_ || !queue_.empty(); });
    // A waiting quit message discards whatever is still queued.
    if (quit_) {
      queue_.clear();
      break;
    }
    NotifyEvent event = std::move(queue_.front());
    queue_.pop_front();
    // A gone owner: nobody wants the notices any more.
    if (owner_.expired()) {
      queue_.clear();
      idle_.notify_all();
      continue;
    }
    busy_ = true;
    lock.unlock();

    HttpRequest request;
    ApplyInternetSettings(settings_.internet, request);
    request.extra_headers = settings_.extra_headers;
    request.object = NoticePath(settings_, event);
    request.receive_timeout = settings_.receive_timeout;
    request.max_body = size_t{1} << 20;
    const bool sendable =
        !request.object.empty() && SplitServiceHost(settings_.host, request.server, request.port);
    // The answer is not read: a lost notice is made good by the next sync.
    if (sendable) ExecuteHttpRequest(request, session);

    lock.lock();
    if (sendable) ++sent_;
    busy_ = false;
    if (queue_.empty()) idle_.notify_all();
    // At most one notice a second; a quit cuts the pause short.
    wake_.wait_for(lock, settings_.interval, [this] { return quit_; });
  }
  busy_ = false;
  idle_.notify_all();
}

}  // namespace dischive
