// Fake freedb servers for the lookup tests: one database of entries answering
// CDDB protocol commands, served over HTTP ("/~cddb/cddb.cgi") and over the
// CDDB socket protocol (port 8880 style), both on 127.0.0.1. Both log what they
// received so that tests can check the exact requests.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

namespace dischive::test {

/// One database entry.
struct FakeEntry {
  std::string category;        ///< "rock", "misc", ...
  uint32_t disc_id = 0;        ///< the entry's own id
  uint32_t query_disc_id = 0;  ///< the id whose query finds it (0: disc_id)
  bool exact = true;           ///< an exact match (210/200) or a fuzzy one (211)
  std::string dtitle;          ///< "Artist / Title" (UTF-8)
  std::string xmcd;            ///< the entry's lines, "\n" separated, without the "." line
};

/// An xmcd entry text for tests: revision, DTITLE, DYEAR, DGENRE and one
/// TTITLE per track (track titles "Track 1", ... unless given).
std::string MakeXmcd(uint32_t disc_id, const std::string& dtitle, int year,
                     const std::string& genre, const std::vector<std::string>& tracks,
                     int revision = 0);

class FakeFreedbDatabase;

/// The sample discs the lookup tests share:
///   rock 0a0b0c03 "The Band / First Album" (1999, rev. 2; tracks One, Two, Three), an
///     exact match of its own id;
///   misc 1000a002 "Zoë / Cantar" (tracks Ä, B) and folk 1000a0ff "Other / Thing"
///     (X, Y), both inexact matches of id 1000a002;
///   rock 2000b002 "The Band / Second" (entry "THE BAND / Second Disc 2"; S1, S2)
///     and jazz 2000b0aa "Someone / Else", both exact matches of id 2000b002.
void AddSampleDiscs(FakeFreedbDatabase& db);

/// The freedb database: answers command lines as a freedb server at protocol
/// level 5 (ISO-8859-1 texts) or 6 (UTF-8).
class FakeFreedbDatabase {
 public:
  void Add(FakeEntry entry);
  /// The answer to one command ("cddb query ...", "cddb read ...", "cddb hello
  /// ...", "proto N", "quit", ...), every line ended by `eol`.
  std::string Answer(const std::string& command, int proto, const std::string& eol) const;

 private:
  mutable std::mutex mutex_;
  std::vector<FakeEntry> entries_;
};

/// The freedb CGI over HTTP on 127.0.0.1.
class FakeFreedbHttpServer {
 public:
  explicit FakeFreedbHttpServer(std::shared_ptr<FakeFreedbDatabase> database);
  ~FakeFreedbHttpServer();

  int port() const { return port_; }
  /// "http://127.0.0.1:PORT/~cddb/cddb.cgi"
  std::string url() const;
  /// The request targets received ("/~cddb/cddb.cgi?cmd=..."), in order.
  std::vector<std::string> requests() const;
  /// Replaces the answer to commands: return a body to send it instead of the
  /// database's, nullopt to let the database answer.
  void SetOverride(std::function<std::optional<std::string>(const std::string& cmd)> fn);
  /// Answers every request with this HTTP status (0: normal).
  void SetStatus(int status) { status_ = status; }
  /// Line end of the answers ("\n" by default, as the CGI sends).
  void SetLineEnd(std::string eol);

 private:
  std::shared_ptr<FakeFreedbDatabase> database_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> status_{0};
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::function<std::optional<std::string>(const std::string&)> override_;
  std::string eol_ = "\n";
};

/// The CDDB socket protocol on 127.0.0.1: a banner, then one answer per command
/// line, until "quit" or the client closes. Connections are served one after
/// the other.
class FakeCddbpServer {
 public:
  /// What the server does with one command.
  struct Action {
    std::string reply;         ///< bytes to send
    bool close_after = false;  ///< close the connection after sending
    bool stall = false;        ///< send nothing and keep the connection open
    /// When set, the reply goes out one byte at a time with this pause between.
    std::chrono::milliseconds trickle{0};
  };

  explicit FakeCddbpServer(std::shared_ptr<FakeFreedbDatabase> database);
  ~FakeCddbpServer();

  int port() const { return port_; }
  /// The banner sent on connect (default "201 fake CDDBP server v1.5.2PL0 ready ...").
  void SetBanner(std::string banner);
  /// Replaces the answer to commands: return an Action to take over, nullopt to
  /// let the database answer.
  void SetOverride(std::function<std::optional<Action>(const std::string& line)> fn);
  /// Everything received, command lines joined with their line ends.
  std::string received() const;
  /// Everything sent.
  std::string sent() const;
  /// Number of connections accepted.
  int connections() const { return connections_; }

 private:
  void Serve();
  void ServeConnection(int fd);

  std::shared_ptr<FakeFreedbDatabase> database_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
  mutable std::mutex mutex_;
  std::string banner_;
  std::string received_;
  std::string sent_;
  std::function<std::optional<Action>(const std::string&)> override_;
};

}  // namespace dischive::test
