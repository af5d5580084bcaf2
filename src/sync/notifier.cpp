// The play and rating notifier: a thread mailbox of notices drained by one thread.
#include "dischive/notifier.h"
#include "dischive/crash_report.h"

#include <fmt/format.h>

#include <deque>

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

std::unique_ptr<PlayRatingNotifier> StartNotifier(CatalogEngine& catalog, NotifierSettings settings,
                                                  std::shared_ptr<HostWindow> owner) {
  settings.login = catalog.GetDatabaseProperty("db_opts", "sync_login").value_or("");
  settings.dbkey = catalog.GetDatabaseProperty("db_opts", "sync_dbkey").value_or("");
  if (settings.login.empty() || settings.dbkey.empty() || !owner) return nullptr;
  std::unique_ptr<PlayRatingNotifier> notifier(
      new PlayRatingNotifier(catalog, std::move(settings), std::move(owner)));
  notifier->thread_ = std::thread([n = notifier.get()] {
    const ThreadSignalStack signal_stack;  // so a crash here is reported too
    n->NotifierThread();
  });
  return notifier;
}

std::unique_ptr<PlayRatingNotifier> StartNotifier(CatalogEngine& catalog,
                                                  const SettingsStore& settings,
                                                  std::shared_ptr<HostWindow> owner) {
  NotifierSettings s;
  s.host = ConfiguredServiceHost(settings);
  s.internet = LoadInternetSettings(settings);
  return StartNotifier(catalog, std::move(s), std::move(owner));
}

PlayRatingNotifier::PlayRatingNotifier(CatalogEngine& catalog, NotifierSettings settings,
                                       std::shared_ptr<HostWindow> owner)
    : catalog_(catalog), settings_(std::move(settings)), owner_(std::move(owner)) {}

PlayRatingNotifier::~PlayRatingNotifier() {
  Quit();
}

bool PlayRatingNotifier::Post(NotifyEvent event) {
  if (event.album_id.empty()) return false;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_ || !mailbox_.post(kNotifyMessage, 0, std::move(event))) return false;
  ++pending_;
  return true;
}

bool PlayRatingNotifier::NotifyRated(const AlbumRecord& album) {
  const std::string id = album.properties.Text(field::kServiceId);
  if (id.empty() || !LiveUpdatesEnabled(catalog_)) return false;
  NotifyEvent event{id, NotifyKind::kRating, album.properties.Int(field::kRating), 0};
  // The rating time means nothing for an album that has no rating.
  if (event.rating >= 1)
    event.time = static_cast<uint32_t>(album.properties.Int(field::kRatingTime));
  return Post(std::move(event));
}

bool PlayRatingNotifier::NotifyPlayed(const AlbumRecord& album) {
  const std::string id = album.properties.Text(field::kServiceId);
  if (id.empty() || !LiveUpdatesEnabled(catalog_)) return false;
  return Post(
      {id, NotifyKind::kPlay, 0, static_cast<uint32_t>(album.properties.Int(field::kLastPlayed))});
}

void PlayRatingNotifier::WaitUntilIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return pending_ == 0 || stopped_; });
}

void PlayRatingNotifier::Quit() {
  {
    // Posting under the lock: no notice can slip in behind the quit message.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
    mailbox_.post(ThreadMailbox::kQuit);
  }
  if (thread_.joinable()) thread_.join();
  // What is still queued is dropped unsent.
  mailbox_.close();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    pending_ = 0;
  }
  idle_.notify_all();
}

size_t PlayRatingNotifier::sent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}

void PlayRatingNotifier::Handled(bool sent) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (sent) ++sent_;
  if (pending_ > 0 && --pending_ == 0) idle_.notify_all();
}

void PlayRatingNotifier::Send(const NotifyEvent& event, HttpSession& session) {
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
  Handled(sendable);
}

void PlayRatingNotifier::NotifierThread() {
  HttpSession session;
  // Messages taken from the mailbox during a pause, in the order they came.
  std::deque<HostMessage> held;
  while (true) {
    std::optional<HostMessage> message;
    if (!held.empty()) {
      message = std::move(held.front());
      held.pop_front();
    } else {
      message = mailbox_.get(std::chrono::hours(1));
      if (!message) continue;
    }
    if (message->message == ThreadMailbox::kQuit) return;
    if (message->message != kNotifyMessage) continue;
    const auto* event = std::any_cast<NotifyEvent>(&message->payload);
    // A quit message already waiting discards the notice; the rest of the
    // queue goes with the mailbox when Quit() closes it.
    if (mailbox_.peek_quit()) return;
    // A closed owner window: nobody wants the notices any more.
    if (event == nullptr || !owner_->alive()) {
      Handled(false);
      continue;
    }
    Send(*event, session);
    message.reset();  // the notice is freed before the pause

    // At most one notice per interval; a quit message cuts the pause short.
    const auto until = std::chrono::steady_clock::now() + settings_.interval;
    for (auto now = std::chrono::steady_clock::now(); now < until;
         now = std::chrono::steady_clock::now()) {
      std::optional<HostMessage> next =
          mailbox_.get(std::chrono::duration_cast<std::chrono::milliseconds>(until - now) +
                       std::chrono::milliseconds(1));
      if (!next) break;
      if (next->message == ThreadMailbox::kQuit) return;
      held.push_back(std::move(*next));
    }
  }
}

}  // namespace dischive
