#include "support/fake_freedb.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "dischive/text.h"

namespace dischive::test {
namespace {

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

std::string ReplaceLineEnds(const std::string& text, const std::string& eol) {
  std::string out;
  for (const char c : text) {
    if (c == '\n') {
      out += eol;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

}  // namespace

std::string MakeXmcd(uint32_t disc_id, const std::string& dtitle, int year,
                     const std::string& genre, const std::vector<std::string>& tracks,
                     int revision) {
  std::string out = "# xmcd\n#\n# Track frame offsets:\n";
  for (size_t i = 0; i < tracks.size(); ++i)
    out += fmt::format("#\t{}\n", 150 + i * 15000);
  out += fmt::format("#\n# Disc length: 2000 seconds\n#\n# Revision: {}\n#\n", revision);
  out +=
      fmt::sprintf("DISCID=%08x\nDTITLE=%s\nDYEAR=%d\nDGENRE=%s\n", disc_id, dtitle, year, genre);
  for (size_t i = 0; i < tracks.size(); ++i)
    out += fmt::format("TTITLE{}={}\n", i, tracks[i]);
  out += "EXTD=\n";
  for (size_t i = 0; i < tracks.size(); ++i)
    out += fmt::format("EXTT{}=\n", i);
  out += "PLAYORDER=\n";
  return out;
}

void AddSampleDiscs(FakeFreedbDatabase& db) {
  db.Add(
      {"rock", 0x0a0b0c03, 0, true, "The Band / First Album",
       MakeXmcd(0x0a0b0c03, "The Band / First Album", 1999, "Rock", {"One", "Two", "Three"}, 2)});
  db.Add({"misc", 0x1000a002, 0, false, "Zoë / Cantar",
          MakeXmcd(0x1000a002, "Zoë / Cantar", 2001, "Folk", {"Ä", "B"})});
  db.Add({"folk", 0x1000a0ff, 0x1000a002, false, "Other / Thing",
          MakeXmcd(0x1000a0ff, "Other / Thing", 2002, "Folk", {"X", "Y"})});
  db.Add({"rock", 0x2000b002, 0, true, "The Band / Second",
          MakeXmcd(0x2000b002, "THE BAND / Second Disc 2", 2003, "Rock", {"S1", "S2"})});
  db.Add({"jazz", 0x2000b0aa, 0x2000b002, true, "Someone / Else",
          MakeXmcd(0x2000b0aa, "Someone / Else", 2003, "Jazz", {"E1", "E2"})});
}

void FakeFreedbDatabase::Add(FakeEntry entry) {
  if (entry.query_disc_id == 0) entry.query_disc_id = entry.disc_id;
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.push_back(std::move(entry));
}

std::string FakeFreedbDatabase::Answer(const std::string& command, int proto,
                                       const std::string& eol) const {
  const std::vector<std::string> w = Words(command);
  std::string answer;
  auto line = [&](const std::string& text) { answer += text + "\n"; };
  const std::string verb = w.empty() ? "" : ToLowerAscii(w[0]);
  const std::string sub = w.size() > 1 ? ToLowerAscii(w[1]) : "";
  std::lock_guard<std::mutex> guard(mutex_);
  if (verb == "cddb" && sub == "hello") {
    line(w.size() == 6
             ? fmt::format("200 Hello and welcome {}@{} running {} {}.", w[2], w[3], w[4], w[5])
             : "431 Handshake not successful, closing connection.");
  } else if (verb == "proto") {
    const int level = w.size() == 2 ? std::atoi(w[1].c_str()) : 0;
    line(level >= 1 && level <= 6 ? fmt::format("201 OK, CDDB protocol level now: {}", level)
                                  : std::string("501 Illegal protocol level."));
  } else if (verb == "quit") {
    line("230 fake Closing connection.  Goodbye.");
  } else if (verb == "cddb" && sub == "query") {
    const size_t tracks = w.size() > 3 ? std::strtoul(w[3].c_str(), nullptr, 10) : 0;
    if (w.size() < 5 || w.size() != 5 + tracks) {
      line("500 Command syntax error.");
    } else {
      const uint32_t id = static_cast<uint32_t>(std::strtoul(w[2].c_str(), nullptr, 16));
      std::vector<const FakeEntry*> found;
      bool all_exact = true;
      for (const FakeEntry& e : entries_) {
        if (e.query_disc_id == id) {
          found.push_back(&e);
          all_exact = all_exact && e.exact;
        }
      }
      auto match = [](const FakeEntry& e) {
        return fmt::sprintf("%s %08x %s", e.category, e.disc_id, e.dtitle);
      };
      if (found.empty()) {
        line(fmt::sprintf("202 No match for disc ID %08x.", id));
      } else if (found.size() == 1 && all_exact) {
        line("200 " + match(*found[0]));
      } else {
        line(all_exact ? "210 Found exact matches, list follows (until terminating `.')"
                       : "211 Found inexact matches, list follows (until terminating `.')");
        for (const FakeEntry* e : found)
          line(match(*e));
        line(".");
      }
    }
  } else if (verb == "cddb" && sub == "read") {
    const FakeEntry* found = nullptr;
    if (w.size() == 4) {
      const uint32_t id = static_cast<uint32_t>(std::strtoul(w[3].c_str(), nullptr, 16));
      for (const FakeEntry& e : entries_) {
        if (e.category == w[2] && e.disc_id == id) found = &e;
      }
    }
    if (w.size() != 4) {
      line("500 Command syntax error.");
    } else if (found == nullptr) {
      line(fmt::format("401 {} {} No such CD entry in database.", w[2], w[3]));
    } else {
      line(fmt::sprintf("210 %s %08x CD database entry follows (until terminating `.')",
                        found->category, found->disc_id));
      answer += found->xmcd;
      if (!found->xmcd.empty() && found->xmcd.back() != '\n') answer += "\n";
      line(".");
    }
  } else {
    line("500 Unrecognized command.");
  }
  answer = ReplaceLineEnds(answer, eol);
  return proto >= 6 ? answer : Utf8ToLatin1(answer);
}

// HTTP -------------------------------------------------------------------------

FakeFreedbHttpServer::FakeFreedbHttpServer(std::shared_ptr<FakeFreedbDatabase> database)
    : database_(std::move(database)), server_(std::make_unique<httplib::Server>()) {
  server_->Get("/~cddb/cddb.cgi", [this](const httplib::Request& req, httplib::Response& res) {
    std::function<std::optional<std::string>(const std::string&)> override_fn;
    std::string eol;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      requests_.push_back(req.target);
      override_fn = override_;
      eol = eol_;
    }
    const std::string cmd = req.get_param_value("cmd");
    const int proto = req.has_param("proto") ? std::atoi(req.get_param_value("proto").c_str()) : 1;
    std::optional<std::string> body;
    if (override_fn) body = override_fn(cmd);
    if (!body) {
      // The CGI performs the hello that the parameter carries before the command.
      const std::string hello = req.get_param_value("hello");
      body =
          Words(hello).size() == 4 ? database_->Answer(cmd, proto, eol) : "409 No handshake." + eol;
    }
    res.status = status_ != 0 ? status_.load() : 200;
    res.set_content(*body, "text/plain");
  });
  port_ = server_->bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FakeFreedbHttpServer::~FakeFreedbHttpServer() {
  server_->stop();
  thread_.join();
}

std::string FakeFreedbHttpServer::url() const {
  return fmt::format("http://127.0.0.1:{}/~cddb/cddb.cgi", port_);
}

std::vector<std::string> FakeFreedbHttpServer::requests() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

void FakeFreedbHttpServer::SetOverride(
    std::function<std::optional<std::string>(const std::string&)> fn) {
  std::lock_guard<std::mutex> guard(mutex_);
  override_ = std::move(fn);
}

void FakeFreedbHttpServer::SetLineEnd(std::string eol) {
  std::lock_guard<std::mutex> guard(mutex_);
  eol_ = std::move(eol);
}

// CDDB socket protocol -----------------------------------------------------------

FakeCddbpServer::FakeCddbpServer(std::shared_ptr<FakeFreedbDatabase> database)
    : database_(std::move(database)),
      banner_("201 fake CDDBP server v1.5.2PL0 ready at Sat Nov 21 12:00:00 2026\r\n") {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listen_fd_, 8) != 0) {
    throw std::runtime_error("FakeCddbpServer: cannot listen");
  }
  socklen_t length = sizeof addr;
  ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &length);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

FakeCddbpServer::~FakeCddbpServer() {
  stop_ = true;
  thread_.join();
  ::close(listen_fd_);
}

void FakeCddbpServer::SetBanner(std::string banner) {
  std::lock_guard<std::mutex> guard(mutex_);
  banner_ = std::move(banner);
}

void FakeCddbpServer::SetOverride(std::function<std::optional<Action>(const std::string&)> fn) {
  std::lock_guard<std::mutex> guard(mutex_);
  override_ = std::move(fn);
}

std::string FakeCddbpServer::received() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return received_;
}

std::string FakeCddbpServer::sent() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return sent_;
}

void FakeCddbpServer::Serve() {
  while (!stop_) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    ++connections_;
    ServeConnection(fd);
    ::close(fd);
  }
}

void FakeCddbpServer::ServeConnection(int fd) {
  auto send_all = [&](const std::string& bytes) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      sent_ += bytes;
    }
    for (size_t done = 0; done < bytes.size();) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  };
  // Waits for data; false when the client closed or the server stops.
  auto wait_readable = [&]() {
    while (!stop_) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 50) > 0) return true;
    }
    return false;
  };
  std::string banner;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    banner = banner_;
  }
  if (!send_all(banner) || banner.empty() || banner[0] != '2') return;

  int proto = 1;
  bool shook_hands = false;
  std::string pending;
  char buffer[4096];
  for (;;) {
    size_t lf;
    while ((lf = pending.find('\n')) == std::string::npos) {
      if (!wait_readable()) return;
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      pending.append(buffer, static_cast<size_t>(n));
    }
    std::string line = pending.substr(0, lf + 1);
    pending.erase(0, lf + 1);
    std::function<std::optional<Action>(const std::string&)> override_fn;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      received_ += line;
      override_fn = override_;
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
      line.pop_back();

    std::optional<Action> action;
    if (override_fn) action = override_fn(line);
    if (!action) {
      action.emplace();
      const std::vector<std::string> w = Words(line);
      const std::string verb = w.empty() ? "" : ToLowerAscii(w[0]);
      const std::string sub = w.size() > 1 ? ToLowerAscii(w[1]) : "";
      if (verb == "cddb" && (sub == "query" || sub == "read") && !shook_hands) {
        action->reply = "409 No handshake.\r\n";
      } else if (verb == "cddb" && sub == "hello" && shook_hands) {
        action->reply = "402 Already shook hands.\r\n";
      } else {
        action->reply = database_->Answer(line, proto, "\r\n");
        if (verb == "cddb" && sub == "hello") {
          shook_hands = action->reply[0] == '2';
          action->close_after = !shook_hands;
        }
        if (verb == "proto" && action->reply[0] == '2') proto = std::atoi(w[1].c_str());
        if (verb == "quit") action->close_after = true;
      }
    }
    if (action->stall) {
      // Keep the connection open without a word until the client gives up.
      while (wait_readable()) {
        if (::recv(fd, buffer, sizeof buffer, 0) <= 0) return;
      }
      return;
    }
    if (action->trickle.count() > 0) {
      // A byte at a time, each pause short of the client's idle time-out.
      for (char c : action->reply) {
        if (stop_ || !send_all(std::string(1, c))) return;
        std::this_thread::sleep_for(action->trickle);
      }
      if (action->close_after) return;
      continue;
    }
    if (!send_all(action->reply) || action->close_after) return;
  }
}

}  // namespace dischive::test
