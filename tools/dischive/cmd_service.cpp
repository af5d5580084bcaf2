// dischive service call|list|url|login: raw requests to the collection
// service, its album list, an album's address on the service, and the account
// kept in the catalogue.
#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

#include "catalog_cli.h"
#include "dischive/notifier.h"
#include "service_cli.h"

namespace dischive::cli {

std::string CliServiceHost(const Context& context) {
  const std::string host = ConfiguredServiceHost(*context.settings);
  std::string server;
  uint16_t port = 0;
  if (!SplitServiceHost(host, server, port)) {
    throw CommandError(kExitUsage, "internet2.service_host: \"" + host +
                                       "\" is not \"host\" or \"host:port\" (port 1-65535)");
  }
  return host;
}

ServiceConnection CliServiceConnection(const Context& context, std::string& log) {
  ServiceConnection connection;
  connection.host = CliServiceHost(context);
  connection.internet = LoadInternetSettings(*context.settings);
  if (context.verbosity >= 2) connection.log = &log;
  connection.status = [&context](const std::string& text) { context.Note(text); };
  return connection;
}

std::vector<ServiceParam> CliServiceAccount(CatalogEngine& catalog) {
  const std::string login = catalog.GetDatabaseProperty("db_opts", "sync_login").value_or("");
  const std::string key = catalog.GetDatabaseProperty("db_opts", "sync_dbkey").value_or("");
  if (login.empty() || key.empty()) {
    throw CommandError(kExitFailure, catalog.path().string() +
                                         ": no collection service account; set one with "
                                         "\"dischive service login LOGIN DBKEY\"");
  }
  return {{"login", login}, {"password", key}};
}

void FailService(HResult code, const std::string& what) {
  if (const std::optional<std::string> message = ServiceErrorMessage();
      message && code == kFreedbServiceError) {
    throw CommandError(kExitNetwork, what + ": the service answered: " + *message);
  }
  Fail(code, what);
}

std::string CliAlbumId(const std::string& text) {
  std::string id = text;
  bool hex = id.size() == 16;
  for (char& c : id) {
    hex = hex && std::isxdigit(static_cast<unsigned char>(c)) != 0;
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (!hex) throw CommandError(kExitUsage, text + ": not an album id (16 hexadecimal digits)");
  return id;
}

namespace {

std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CommandError(kExitFailure, path + ": " + std::strerror(errno));
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw CommandError(kExitFailure, path + ": read error");
  return bytes;
}

void PrintLog(const Context& context, const std::string& log) {
  if (context.verbosity >= 2 && !log.empty()) std::cerr << log;
}

Json StateJson(const AlbumState& a) {
  return Json{{"id", a.id},
              {"modified", a.modified},
              {"played", a.played},
              {"rated", a.rated},
              {"cover_hash", a.cover_hash}};
}

void PrintStates(const Context& context, const std::vector<AlbumState>& albums) {
  if (context.json) return;
  for (const AlbumState& a : albums) {
    std::cout << fmt::format("{}  modified {:08X}  played {:08X}  rated {:08X}  {}\n", a.id,
                             a.modified, a.played, a.rated,
                             a.cover_hash.empty() ? "(no cover)" : a.cover_hash);
  }
}

void Setup(CLI::App& app, Context& context) {
  CLI::App* service = app.add_subcommand("service", "Talk to the online collection service");
  service->require_subcommand(1);
  static std::string db_path;

  // call ---------------------------------------------------------------------
  static std::string command, payload;
  static std::vector<std::string> params, covers;
  CLI::App* call = service->add_subcommand(
      "call", "Send one request; print the result params, album states or error message");
  call->add_option("command", command, "Command word (list, put, cover, delete, ...)")->required();
  call->add_option("--param", params, "NAME=VALUE added after the account params (repeatable)");
  call->add_option("--payload", payload, "Collection document FILE sent with \"put\"");
  call->add_option("--cover", covers,
                   "ALBUMID=FILE.jpg sent as a multipart form with \"cover\" (repeatable)");
  AddDatabaseOption(call, db_path);
  call->callback([&context] {
    context.action = [&context] {
      if (command.empty() || command.find_first_of("<>&\r\n") != std::string::npos) {
        throw CommandError(kExitUsage, "\"" + command + "\": not a command word");
      }
      if (command == "put" && payload.empty()) {
        throw CommandError(kExitUsage, "put: --payload FILE is needed");
      }
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, false);
      std::vector<ServiceParam> request = CliServiceAccount(*catalog);
      for (const std::string& p : params) {
        const size_t eq = p.find('=');
        if (eq == std::string::npos || eq == 0 || p.find_first_of("<>&") != std::string::npos) {
          throw CommandError(kExitUsage,
                             "--param: expected NAME=VALUE without <, > or &, got \"" + p + "\"");
        }
        request.push_back({p.substr(0, eq), p.substr(eq + 1)});
      }
      std::vector<std::string> images;
      std::vector<CoverAttachment> attachments;
      images.reserve(covers.size());
      for (const std::string& c : covers) {
        const size_t eq = c.find('=');
        if (eq == std::string::npos) {
          throw CommandError(kExitUsage, "--cover: expected ALBUMID=FILE.jpg, got \"" + c + "\"");
        }
        images.push_back(ReadFileBytes(c.substr(eq + 1)));
        attachments.push_back({images.back(), CliAlbumId(c.substr(0, eq))});
      }
      if (!payload.empty()) {
        std::ifstream probe(payload);
        if (!probe) throw CommandError(kExitFailure, payload + ": " + std::strerror(errno));
      }

      std::string log;
      ServiceConnection connection = CliServiceConnection(context, log);
      std::vector<ServiceParam> result;
      std::vector<AlbumState> albums;
      const HResult code = SendServiceRequest(connection, command, request, &result, payload,
                                              attachments, &albums, !attachments.empty());
      PrintLog(context, log);
      if (context.json) {
        Json out{{"command", command}, {"result", code}};
        Json p = Json::object();
        for (const ServiceParam& r : result)
          p[r.name] = r.value;
        out["params"] = p;
        Json states = Json::array();
        for (const AlbumState& a : albums)
          states.push_back(StateJson(a));
        out["albums"] = states;
        if (const auto message = ServiceErrorMessage()) out["error"] = *message;
        PrintJson(out);
      } else {
        for (const ServiceParam& r : result)
          std::cout << r.name << '=' << r.value << '\n';
        PrintStates(context, albums);
      }
      if (code != kOk) FailService(code, command + " on " + connection.host);
      return static_cast<int>(kExitOk);
    };
  });

  // list ---------------------------------------------------------------------
  CLI::App* list = service->add_subcommand("list", "List the albums the service holds");
  AddDatabaseOption(list, db_path);
  list->callback([&context] {
    context.action = [&context] {
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, false);
      const std::vector<ServiceParam> account = CliServiceAccount(*catalog);
      std::string log;
      ServiceConnection connection = CliServiceConnection(context, log);
      std::vector<AlbumState> albums;
      const HResult code =
          SendServiceRequest(connection, "list", account, nullptr, {}, {}, &albums);
      PrintLog(context, log);
      if (code != kOk) FailService(code, "list on " + connection.host);
      if (context.json) {
        Json states = Json::array();
        for (const AlbumState& a : albums)
          states.push_back(StateJson(a));
        PrintJson(Json{{"host", connection.host}, {"albums", states}});
      } else {
        PrintStates(context, albums);
        context.Note(fmt::format("{} albums on {}", albums.size(), connection.host));
      }
      return static_cast<int>(kExitOk);
    };
  });

  // url ----------------------------------------------------------------------
  static std::string album;
  CLI::App* url = service->add_subcommand("url", "Print the address of an album on the service");
  url->add_option("album", album, "Album id (16 hexadecimal digits)")->required();
  AddDatabaseOption(url, db_path);
  url->callback([&context] {
    context.action = [&context] {
      const std::string id = CliAlbumId(album);
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, false);
      const std::optional<std::string> address =
          BuildAlbumPageUrl(*catalog, CliServiceHost(context), id);
      if (!address) {
        CliServiceAccount(*catalog);  // names what is missing
        throw CommandError(kExitFailure, "no address for album " + id);
      }
      if (context.json) {
        PrintJson(Json{{"album", id}, {"url", *address}});
      } else {
        std::cout << *address << '\n';
      }
      return static_cast<int>(kExitOk);
    };
  });

  // login --------------------------------------------------------------------
  static std::string login, dbkey, live;
  CLI::App* account =
      service->add_subcommand("login", "Store the service account in the catalogue");
  account->add_option("login", login, "Login name on the service")->required();
  account->add_option("dbkey", dbkey, "Database key given by the service")->required();
  account->add_option("--live-updates", live, "Send play and rating notices at once (on|off)")
      ->check(CLI::IsMember({"on", "off"}));
  AddDatabaseOption(account, db_path);
  account->callback([&context] {
    context.action = [&context] {
      for (const auto& [what, text] : {std::pair{"login", &login}, std::pair{"dbkey", &dbkey}}) {
        if (text->empty() || text->find_first_of("<>&\r\n") != std::string::npos) {
          throw CommandError(kExitUsage,
                             std::string(what) + ": must be non-empty, without <, > or &");
        }
      }
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, true);
      HResult code = catalog->SetDatabaseProperty("db_opts", "sync_login", login);
      if (code == kOk) code = catalog->SetDatabaseProperty("db_opts", "sync_dbkey", dbkey);
      if (code == kOk && !live.empty()) {
        code =
            catalog->SetDatabaseProperty("db_opts", "sync_live_updates", live == "on" ? "1" : "0");
      }
      if (code != kOk) Fail(code, catalog->path().string());
      const bool on = LiveUpdatesEnabled(*catalog);
      if (context.json) {
        PrintJson(Json{{"login", login}, {"live_updates", on}});
      } else {
        std::cout << "Account " << login << " stored in " << catalog->path().string()
                  << "; live updates " << (on ? "on" : "off") << '\n';
      }
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("service", &Setup);

}  // namespace
}  // namespace dischive::cli
