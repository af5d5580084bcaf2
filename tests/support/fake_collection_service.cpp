#include "support/fake_collection_service.h"

#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <sstream>

#include "dischive/cover.h"

namespace dischive::test {
namespace {

std::string Prop(xmlNode* node, const char* name) {
  xmlChar* v = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (v == nullptr) return {};
  std::string out(reinterpret_cast<const char*>(v));
  xmlFree(v);
  return out;
}

std::string Text(xmlNode* node) {
  xmlChar* v = xmlNodeGetContent(node);
  if (v == nullptr) return {};
  std::string out(reinterpret_cast<const char*>(v));
  xmlFree(v);
  return out;
}

bool Named(xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE &&
         xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

xmlNode* Child(xmlNode* node, const char* name) {
  for (xmlNode* c = node != nullptr ? node->children : nullptr; c != nullptr; c = c->next) {
    if (Named(c, name)) return c;
  }
  return nullptr;
}

std::vector<xmlNode*> Children(xmlNode* node, const char* name) {
  std::vector<xmlNode*> out;
  for (xmlNode* c = node != nullptr ? node->children : nullptr; c != nullptr; c = c->next) {
    if (Named(c, name)) out.push_back(c);
  }
  return out;
}

uint32_t Hex(const std::string& text) {
  uint32_t v = 0;
  std::from_chars(text.data(), text.data() + text.size(), v, 16);
  return v;
}

std::string ErrorEnvelope(std::string_view inner) {
  return fmt::format("<?xml version=\"1.0\"?>\n<Envelope><Error>{}</Error></Envelope>\n", inner);
}

// The form the client sends: "--B\n" headers "\n\n" content, parts separated
// by "\n--B", the last boundary followed by "--". Returns false when the body
// does not follow that layout.
bool ParseMultipart(const std::string& body, const std::string& boundary,
                    std::map<std::string, std::string>& parts) {
  const std::string first = "--" + boundary;
  const std::string separator = "\n--" + boundary;
  if (body.compare(0, first.size(), first) != 0) return false;
  size_t pos = first.size();
  while (true) {
    if (body.compare(pos, 2, "--") == 0) return pos + 2 == body.size();
    if (body.compare(pos, 1, "\n") != 0) return false;
    const size_t headers_end = body.find("\n\n", pos);
    if (headers_end == std::string::npos) return false;
    const std::string headers = body.substr(pos + 1, headers_end - pos - 1);
    const size_t content = headers_end + 2;
    const size_t end = body.find(separator, content);
    if (end == std::string::npos) return false;
    const size_t name_at = headers.find("name=\"");
    if (name_at == std::string::npos) return false;
    const size_t name_end = headers.find('"', name_at + 6);
    if (name_end == std::string::npos) return false;
    parts[headers.substr(name_at + 6, name_end - name_at - 6)] =
        body.substr(content, end - content);
    pos = end + separator.size();
  }
}

}  // namespace

FakeCollectionService::FakeCollectionService(std::string login, std::string password)
    : login_(std::move(login)), password_(std::move(password)) {}

FakeCollectionService::~FakeCollectionService() {
  stopping_ = true;
  if (listen_fd_ >= 0) ::shutdown(listen_fd_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  if (listen_fd_ >= 0) ::close(listen_fd_);
}

bool FakeCollectionService::Start() {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listen_fd_, 16) != 0 ||
      ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    return false;
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { Serve(); });
  return true;
}

void FakeCollectionService::Serve() {
  while (!stopping_) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ServeConnection(fd);
    ::close(fd);
  }
}

void FakeCollectionService::ServeConnection(int fd) {
  std::string data;
  char buffer[65536];
  size_t header_end = std::string::npos;
  size_t content_length = 0;
  std::string request_line, content_type;
  while (true) {
    if (header_end == std::string::npos) {
      header_end = data.find("\r\n\r\n");
      if (header_end != std::string::npos) {
        std::istringstream headers(data.substr(0, header_end));
        std::getline(headers, request_line);
        for (std::string line; std::getline(headers, line);) {
          if (!line.empty() && line.back() == '\r') line.pop_back();
          const size_t colon = line.find(':');
          if (colon == std::string::npos) continue;
          std::string name = line.substr(0, colon);
          for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
          std::string value = line.substr(colon + 1);
          value.erase(0, value.find_first_not_of(' '));
          if (name == "content-length") content_length = std::stoul(value);
          if (name == "content-type") content_type = value;
        }
      }
    }
    if (header_end != std::string::npos && data.size() - header_end - 4 >= content_length) break;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    data.append(buffer, static_cast<size_t>(n));
  }
  const std::string body = data.substr(header_end + 4, content_length);
  Answer answer;
  std::string type = "text/xml; charset=UTF-8";
  if (request_line.rfind("POST /xml ", 0) == 0) {
    answer = Handle(content_type, body);
  } else if (request_line.rfind("GET /peek", 0) == 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const size_t space = request_line.find(' ', 4);
    peeks_.push_back({request_line.substr(4, space - 4), std::chrono::steady_clock::now()});
    answer.body = "OK";
    type = "text/plain";
  } else {
    answer = {404, "not found", false};
  }
  const size_t announced = answer.cut ? answer.body.size() + 100 : answer.body.size();
  std::string response = fmt::format(
      "HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nConnection: close\r\n\r\n",
      answer.status, answer.status == 200 ? "OK" : "Error", type, announced);
  // A cut answer breaks off in the middle of its body.
  response += answer.cut ? answer.body.substr(0, answer.body.size() / 2) : answer.body;
  size_t sent = 0;
  while (sent < response.size()) {
    const ssize_t n = ::send(fd, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

std::string FakeCollectionService::host() const {
  return "127.0.0.1:" + std::to_string(port_);
}

void FakeCollectionService::Fail(ServiceFailure failure, size_t after, size_t count) {
  const std::lock_guard<std::mutex> lock(mutex_);
  failure_ = failure;
  fail_after_ = handled_ + after;
  fail_count_ = count;
}

void FakeCollectionService::SetListAnswer(std::string body) {
  const std::lock_guard<std::mutex> lock(mutex_);
  list_answer_ = std::move(body);
}

std::map<std::string, ServiceAlbum> FakeCollectionService::albums() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return albums_;
}

void FakeCollectionService::SetAlbum(const std::string& id, ServiceAlbum album) {
  const std::lock_guard<std::mutex> lock(mutex_);
  albums_[id] = std::move(album);
}

std::vector<ReceivedRequest> FakeCollectionService::requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<ReceivedPeek> FakeCollectionService::peeks() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return peeks_;
}

void FakeCollectionService::ClearLog() {
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
  peeks_.clear();
}

FakeCollectionService::Answer FakeCollectionService::Handle(const std::string& content_type,
                                                            const std::string& body) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ReceivedRequest log;
  log.content_type = content_type;
  log.body = body;
  const size_t index = handled_++;
  const bool failing = failure_ != ServiceFailure::kNone && index >= fail_after_ &&
                       (fail_count_ == 0 || index < fail_after_ + fail_count_);

  std::string envelope;
  std::map<std::string, std::string> files;
  Answer answer;
  if (content_type.rfind("multipart/form-data", 0) == 0) {
    const size_t at = content_type.find("boundary=");
    std::map<std::string, std::string> parts;
    if (at == std::string::npos || !ParseMultipart(body, content_type.substr(at + 9), parts) ||
        parts.count("req") == 0) {
      requests_.push_back(std::move(log));
      return {400, "malformed form", false};
    }
    envelope = parts["req"];
    parts.erase("req");
    files = std::move(parts);
  } else if (content_type == "text/xml; charset=UTF-8") {
    envelope = body;
  } else {
    requests_.push_back(std::move(log));
    return {415, "unsupported content type", false};
  }

  if (failing) {
    switch (failure_) {
      case ServiceFailure::kStatus500:
        answer = {500, "internal error", false};
        break;
      case ServiceFailure::kDescription:
        answer.body = ErrorEnvelope("<Code>7</Code><Description>Database locked</Description>");
        break;
      case ServiceFailure::kCode:
        answer.body = ErrorEnvelope("<Code>42</Code>");
        break;
      case ServiceFailure::kCodeZero:
        answer.body = ErrorEnvelope("<Code>0</Code>");
        break;
      case ServiceFailure::kCutConnection:
        answer = {200, "<?xml version=\"1.0\"?><Envelope><Response></Response></Envelope>", true};
        break;
      case ServiceFailure::kMalformed:
        answer.body = "<Envelope><Response>";
        break;
      case ServiceFailure::kNone:
        break;
    }
    // The request is understood (logged) but not carried out.
    const auto saved = albums_;
    HandleEnvelope(envelope, files, log);
    albums_ = saved;
    log.album_ids.clear();
    log.cover_ids.clear();
    requests_.push_back(std::move(log));
    return answer;
  }
  // Carried out on a copy first, so that a refused request changes nothing.
  const auto saved = albums_;
  answer = HandleEnvelope(envelope, files, log);
  if (answer.status != 200 || answer.body.find("<Error>") != std::string::npos) albums_ = saved;
  requests_.push_back(std::move(log));
  return answer;
}

FakeCollectionService::Answer FakeCollectionService::HandleEnvelope(
    const std::string& envelope, const std::map<std::string, std::string>& files,
    ReceivedRequest& log) {
  std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc(
      xmlReadMemory(envelope.data(), static_cast<int>(envelope.size()), "req.xml", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
      &xmlFreeDoc);
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  xmlNode* request = Named(root, "Envelope") ? Child(root, "Request") : nullptr;
  if (request == nullptr) return {400, "not an envelope", false};
  log.command = Text(Child(request, "Command"));
  for (xmlNode* p : Children(Child(request, "Params"), "Param")) {
    log.params.emplace_back(Text(Child(p, "Name")), Text(Child(p, "Value")));
  }
  auto param = [&](const std::string& name) {
    for (const auto& [n, v] : log.params) {
      if (n == name) return v;
    }
    return std::string();
  };
  if (param("login") != login_ || param("password") != password_) {
    return {200, ErrorEnvelope("<Code>3</Code><Description>Unknown login or key</Description>"),
            false};
  }

  std::string result_params;
  if (log.command == "list") {
    if (list_answer_) return {200, *list_answer_, false};
    std::string albums;
    for (const auto& [id, a] : albums_) {
      albums +=
          fmt::format("<Album ID=\"{}\" Modified=\"{:08X}\" Played=\"{:08X}\" Rated=\"{:08X}\"{}/>",
                      id, a.modified, a.played, a.rated,
                      a.cover_hash.empty() ? std::string() : " CoverHash=\"" + a.cover_hash + "\"");
    }
    return {200,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Envelope><Response><Payload><Collection>"
            "<Albums><All>" +
                albums + "</All></Albums></Collection></Payload></Response></Envelope>\n",
            false};
  }
  if (log.command == "put") {
    xmlNode* collection = Child(Child(request, "Payload"), "Collection");
    if (collection == nullptr) return {200, ErrorEnvelope("<Code>11</Code>"), false};
    for (xmlNode* a : Children(Child(collection, "Albums"), "Album")) {
      const std::string id = Prop(a, "ID");
      if (id.size() != 16) {
        return {200, ErrorEnvelope("<Description>Album without ID</Description>"), false};
      }
      ServiceAlbum& album = albums_[id];
      album.modified = Hex(Prop(a, "Modified"));
      log.album_ids.push_back(id);
    }
    result_params =
        fmt::format("<Param><Name>Accepted</Name><Value>{}</Value></Param>", log.album_ids.size());
  } else if (log.command == "cover") {
    size_t stored = 0;
    for (xmlNode* c : Children(Child(request, "Covers"), "Cover")) {
      const auto file = files.find(Prop(c, "Attachment"));
      const std::string id = Prop(c, "AlbumID");
      if (file == files.end() || CoverHash(file->second) != Prop(c, "Hash")) {
        return {200, ErrorEnvelope("<Description>Cover does not match its hash</Description>"),
                false};
      }
      const auto album = albums_.find(id);
      if (album == albums_.end()) {
        return {200, ErrorEnvelope("<Description>Cover for an unknown album</Description>"), false};
      }
      album->second.cover_hash = Prop(c, "Hash");
      log.cover_ids.push_back(id);
      ++stored;
    }
    result_params = fmt::format("<Param><Name>Stored</Name><Value>{}</Value></Param>", stored);
  } else if (log.command == "delete") {
    size_t removed = 0;
    for (const auto& [n, v] : log.params) {
      if (n == "id") removed += albums_.erase(v);
    }
    result_params = fmt::format("<Param><Name>Removed</Name><Value>{}</Value></Param>", removed);
  } else if (log.command != "hello") {
    return {200, ErrorEnvelope("<Code>2</Code><Description>Unknown command</Description>"), false};
  }
  return {200,
          "<?xml version=\"1.0\"?>\n<Envelope><Response><Params>" + result_params +
              "<Param><Name>Albums</Name><Value>" + std::to_string(albums_.size()) +
              "</Value></Param></Params></Response></Envelope>\n",
          false};
}

}  // namespace dischive::test
