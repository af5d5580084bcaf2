#include "dischive/strings.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "dischive/ini.h"
#include "dischive/settings.h"
#include "dischive/text.h"

namespace dischive {
namespace {

struct BuiltinString {
  uint32_t id;
  const char* text;
};

// The English texts. Those with printf conversions are formatted by their
// callers with the arguments named in the comment.
constexpr BuiltinString kBuiltin[] = {
    // Result codes of the library (facility 0x8111) and their fallback.
    {5034, "An unknown error occurred."},
    {5035, "No matching entry was found in the freedb database."},
    {5038, "The CDDB server refused the query for the disc."},
    {5039, "The freedb server gave an unusable answer or reported an error."},
    {5043, "The CDDB server refused to send the database entry."},
    {5044, "The CDDB server refused the connection."},
    {5045, "The CDDB server refused the greeting (hello)."},
    {5046, "The mail server refused the connection."},
    {5047, "The mail server refused the greeting (HELO)."},
    {5048, "The mail server refused the sender address."},
    {5049, "The mail server refused the recipient address."},
    {5050, "The mail server refused the message."},
    {5051, "Error %u (0x%08X)."},  // code, code
    {5052, "The entry is incomplete and cannot be submitted."},
    {5062, "The web server answered with an unexpected HTTP status."},
    {5069, "The freedb submission script reported an error (500)."},
    {5070, "The freedb submission script rejected the entry (501)."},
    {5087, "Connecting to the freedb server..."},
    {5091, "Looking up the disc in freedb..."},
    // Winsock errors.
    {5092, "Closing the connection to the freedb server..."},
    {5093, "Sending the entry to freedb..."},
    {5108, "Permission denied."},
    {5109, "The address is already in use."},
    {5110, "The requested address is not valid in its context."},
    {5111, "The address family is not supported by the protocol family."},
    {5112, "An operation is already in progress."},
    {5113, "The software in the host machine aborted the connection."},
    {5114, "The connection was refused by the server."},
    {5115, "The connection was reset by the remote host."},
    {5116, "A required address was omitted."},
    {5117, "A bad address was passed to a socket call."},
    {5118, "The remote host is down."},
    {5119, "No route to the remote host."},
    {5120, "A blocking operation is in progress."},
    {5121, "A blocking operation was interrupted."},
    {5122, "An invalid argument was supplied."},
    {5123, "The socket is already connected."},
    {5124, "Too many open sockets."},
    {5125, "The message is too long."},
    {5126, "The network is down."},
    {5127, "The connection was dropped by a network reset."},
    {5128, "The network is unreachable."},
    {5129, "No buffer space is available."},
    {5130, "An unknown or invalid option was given."},
    {5131, "The socket is not connected."},
    {5132, "An operation was attempted on something that is not a socket."},
    {5133, "The operation is not supported."},
    {5134, "The protocol family is not supported."},
    {5135, "Too many processes."},
    {5136, "The protocol is not supported."},
    {5137, "The protocol is the wrong type for the socket."},
    {5138, "The socket has been shut down."},
    {5139, "The socket type is not supported."},
    {5140, "The connection timed out."},
    {5142, "The operation would block."},
    {5143, "The host was not found."},
    {5151, "The network subsystem is not initialised."},
    {5152, "The name is valid but has no address of the requested type."},
    {5153, "A non-recoverable error occurred while looking up the name."},
    {5156, "The network subsystem is unavailable."},
    {5157, "The host was not found; the server may answer later."},
    {5158, "The socket library version is not supported."},
    {5159, "The connection is being shut down gracefully."},
    // Transport and services.
    {5169, "Connecting to %s..."},  // server or proxy name
    {5174, "The collection service rejected the user name or password."},
    {5175, "The collection service account is not active."},
    {5176, "The collection service refused the request."},
    {5177, "The collection service could not store the collection."},
    {5178, "The collection service is temporarily unavailable."},
    {5179, "The request could not be prepared."},
    {5191, "Unknown Artist"},
    {5246, "The collection service reported an internal error."},
    {5383, "Various Artists"},
    {5429, "The category is not one of the freedb categories."},
    {5622, "Unknown Artist"},
    {5652, "The answer of the server could not be understood."},
    {5661, "Unknown Album"},
    {5696, "The disc has too many tracks."},
    {5755, "United States"},
    {5759, "United Kingdom"},
    {5760, "Germany"},
    {5761, "Japan"},
    {5776, "(binary data not shown)"},
    {6101, "The collection service reported error %d."},  // error number
    {7003, "France"},
    {7004, "Canada"},
};

std::mutex g_mutex;
std::map<uint32_t, std::string> g_overrides;

const char* FindBuiltin(uint32_t id) {
  const auto* end = std::end(kBuiltin);
  const auto* it = std::lower_bound(std::begin(kBuiltin), end, id,
                                    [](const BuiltinString& s, uint32_t v) { return s.id < v; });
  return it != end && it->id == id ? it->text : nullptr;
}

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      const char c = text[++i];
      out.push_back(c == 'n' ? '\n' : c == 't' ? '\t' : c);
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

}  // namespace

std::string LoadHostString(uint32_t id) {
  {
    std::lock_guard lock(g_mutex);
    if (const auto it = g_overrides.find(id); it != g_overrides.end()) return it->second;
  }
  const char* text = FindBuiltin(id);
  return text != nullptr ? text : "";
}

bool HasHostString(uint32_t id) {
  std::lock_guard lock(g_mutex);
  return g_overrides.count(id) != 0 || FindBuiltin(id) != nullptr;
}

std::vector<uint32_t> BuiltinStringIds() {
  std::vector<uint32_t> ids;
  for (const BuiltinString& s : kBuiltin)
    ids.push_back(s.id);
  return ids;
}

int LoadLanguageFile(const std::filesystem::path& path, std::string* error) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) {
    if (error != nullptr) *error = path.string() + ": no such language file";
    return -1;
  }
  std::string load_error;
  const IniDocument doc = IniDocument::Load(path, &load_error);
  if (!load_error.empty()) {
    if (error != nullptr) *error = load_error;
    return -1;
  }
  std::map<uint32_t, std::string> loaded;
  for (const std::string_view section : {std::string_view(), std::string_view("strings")}) {
    for (const auto& [key, value] : doc.Entries(section)) {
      const std::optional<int32_t> id = ParseSettingsInt(key);
      if (!id || *id <= 0) continue;
      loaded[static_cast<uint32_t>(*id)] = SanitizeUtf8(Unescape(value));
    }
  }
  std::lock_guard lock(g_mutex);
  for (auto& [id, text] : loaded)
    g_overrides[id] = std::move(text);
  return static_cast<int>(loaded.size());
}

void ResetLanguage() {
  std::lock_guard lock(g_mutex);
  g_overrides.clear();
}

}  // namespace dischive
