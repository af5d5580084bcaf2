// A fake collection service on 127.0.0.1: answers POST "/xml" with response
// envelopes as the real service does. It reads requests from the socket itself
// (one per connection), because the client's form uses "\n" line ends and a
// ", boundary=" parameter that the real service accepts and common HTTP
// libraries refuse. It parses what it receives (the request
// envelope, or the multipart form with cover images), keeps a collection of
// albums and covers across requests, checks the account, and can be told to
// answer the next requests with each error form. GET "/peek" notices are
// recorded with their arrival times.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <atomic>
#include <thread>

namespace dischive::test {

/// What the service keeps of one album.
struct ServiceAlbum {
  uint32_t modified = 0;
  uint32_t played = 0;
  uint32_t rated = 0;
  std::string cover_hash;
  std::string title;  ///< the "Title" attribute of the last album sent
};

/// One request as the service understood it.
struct ReceivedRequest {
  std::string command;
  std::vector<std::pair<std::string, std::string>> params;
  std::vector<std::string> album_ids;  ///< "put": the albums stored from the payload
  std::vector<std::string> cover_ids;  ///< "cover": the albums whose covers were stored
  std::string content_type;
  std::string body;  ///< as received
};

/// A received "/peek" notice: its path and query, and when it arrived.
struct ReceivedPeek {
  std::string target;
  std::chrono::steady_clock::time_point at;
};

/// How the service answers requests after Fail().
enum class ServiceFailure {
  kNone,
  kStatus500,      ///< HTTP 500
  kDescription,    ///< an error element with a Description
  kCode,           ///< an error element with only a non-zero Code
  kCodeZero,       ///< an error element with Code 0 and no Description
  kCutConnection,  ///< the response breaks off after its headers
  kMalformed,      ///< a body that is not XML
};

class FakeCollectionService {
 public:
  /// The account the service accepts ("login" and "password" params).
  FakeCollectionService(std::string login = "listener", std::string password = "0123ABCD");
  ~FakeCollectionService();

  bool Start();
  int port() const { return port_; }
  /// "127.0.0.1:<port>", the form the client's host setting takes.
  std::string host() const;

  /// From the `after`-th request on (0: the next), answer `count` requests
  /// with `failure` (count 0: all of them).
  void Fail(ServiceFailure failure, size_t after = 0, size_t count = 0);
  /// Replaces the "list" answer with this body (for hostile answers).
  void SetListAnswer(std::string body);
  /// Albums the service holds, by id.
  std::map<std::string, ServiceAlbum> albums() const;
  void SetAlbum(const std::string& id, ServiceAlbum album);
  std::vector<ReceivedRequest> requests() const;
  std::vector<ReceivedPeek> peeks() const;
  void ClearLog();

 private:
  struct Answer {
    int status = 200;
    std::string body;
    bool cut = false;
  };
  Answer Handle(const std::string& content_type, const std::string& body);
  void Serve();
  void ServeConnection(int fd);
  Answer HandleEnvelope(const std::string& envelope,
                        const std::map<std::string, std::string>& files, ReceivedRequest& log);

  std::string login_;
  std::string password_;
  int listen_fd_ = -1;
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  mutable std::mutex mutex_;
  std::map<std::string, ServiceAlbum> albums_;
  std::vector<ReceivedRequest> requests_;
  std::vector<ReceivedPeek> peeks_;
  ServiceFailure failure_ = ServiceFailure::kNone;
  size_t fail_after_ = 0;
  size_t fail_count_ = 0;
  size_t handled_ = 0;
  std::optional<std::string> list_answer_;
};

}  // namespace dischive::test
