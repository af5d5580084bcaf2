// dischive notify play|rate ALBUM_ID...: records a play or a rating in the
// catalogue and tells the collection service at once, through one notifier
// (in order, one notice a second); waits until the notices are sent.
#include <fmt/format.h>

#include <ctime>
#include <iostream>

#include "catalog_cli.h"
#include "dischive/notifier.h"
#include "service_cli.h"

namespace dischive::cli {
namespace {

void Setup(CLI::App& app, Context& context) {
  static std::string db_path, kind;
  static std::vector<std::string> albums;
  static int rating = -1;
  CLI::App* notify = app.add_subcommand(
      "notify", "Record a play or a rating and send the notice to the collection service");
  notify->add_option("kind", kind, "play or rate")
      ->required()
      ->check(CLI::IsMember({"play", "rate"}));
  notify->add_option("albums", albums, "Album ids (16 hexadecimal digits)")->required();
  notify->add_option("--rating", rating, "The rating to record (0 clears it), for \"rate\"")
      ->check(CLI::Range(0, 100));
  AddDatabaseOption(notify, db_path);
  notify->callback([&context] {
    context.action = [&context] {
      if (kind == "rate" && rating < 0)
        throw CommandError(kExitUsage, "rate: --rating N is needed");
      if (kind == "play" && rating >= 0) {
        throw CommandError(kExitUsage, "play: --rating applies to \"rate\" only");
      }
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, true);
      CliServiceAccount(*catalog);
      if (!LiveUpdatesEnabled(*catalog)) {
        throw CommandError(kExitFailure,
                           catalog->path().string() +
                               ": live updates are off (\"dischive service login LOGIN DBKEY "
                               "--live-updates on\" turns them on)");
      }
      // Every album is checked before anything is recorded or sent.
      std::vector<AlbumRecord> records;
      for (const std::string& text : albums) {
        const std::string id = CliAlbumId(text);
        std::optional<AlbumRecord> album = catalog->ReadAlbum(id);
        if (!album) throw CommandError(kExitFailure, id + ": no such album in the catalogue");
        if (album->properties.Text(field::kServiceId).empty()) {
          throw CommandError(
              kExitFailure,
              id + ": the service does not know this album yet (run \"dischive sync\")");
        }
        records.push_back(std::move(*album));
      }

      // The command is the notifier's host: its window is a message loop that
      // stays open until the notices are out.
      const auto owner =
          std::make_shared<MessageLoop>([](const HostMessage&) { return intptr_t{0}; });
      std::unique_ptr<PlayRatingNotifier> notifier =
          StartNotifier(*catalog, *context.settings, owner);
      if (!notifier) throw CommandError(kExitFailure, "the notifier did not start");
      const auto now = static_cast<int32_t>(std::time(nullptr));
      {
        CatalogBatch batch(*catalog);
        for (AlbumRecord& album : records) {
          if (kind == "play") {
            album.properties.Set(field::kLastPlayed, now);
          } else {
            album.properties.Set(field::kRating, rating);
            album.properties.Set(field::kRatingTime, now);
          }
          if (const HResult written = catalog->WriteAlbum(album, WriteMode::kMerge);
              written != kOk) {
            Fail(written, album.id);
          }
        }
        if (const HResult committed = batch.Commit(); committed != kOk) {
          Fail(committed, catalog->path().string());
        }
      }
      for (const AlbumRecord& album : records) {
        const bool posted =
            kind == "play" ? notifier->NotifyPlayed(album) : notifier->NotifyRated(album);
        if (posted) context.Note("queued " + kind + " notice for " + album.id);
      }
      notifier->WaitUntilIdle();
      const size_t sent = notifier->sent();
      notifier->Quit();
      owner->close();
      if (context.json) {
        PrintJson(Json{{"kind", kind}, {"albums", albums}, {"sent", sent}});
      } else {
        std::cout << fmt::format("{} {} notices sent to {}\n", sent, kind, CliServiceHost(context));
      }
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("notify", &Setup);

}  // namespace
}  // namespace dischive::cli
