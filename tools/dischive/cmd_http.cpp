// dischive http get URL...: one request through the library's transport, with
// the configured proxy and agent, printing the status and the body or the
// connection transcript; several URLs go through the background lookup worker,
// a few at a time, each body saved into a folder.
#include <fmt/format.h>
#include <fmt/printf.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>

#include "cli.h"
#include "dischive/codec.h"
#include "dischive/http.h"
#include "dischive/lookup_worker.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "interrupt.h"
#include "progress.h"
#include "util/url.h"

namespace dischive::cli {
namespace {

std::string ReadLine(bool echo) {
  termios saved{};
  const bool terminal = tcgetattr(STDIN_FILENO, &saved) == 0;
  if (!echo && terminal) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  std::string line;
  std::getline(std::cin, line);
  if (!echo && terminal) {
    tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    std::cerr << '\n';
  }
  return line;
}

// The terminal version of the platform's authentication and certificate
// dialogs.
uint32_t AskUser(HttpRequest& request, HResult error, uint32_t status) {
  if (error == kOk) {
    std::cerr << (status == 407 ? "The proxy" : "The server") << " asks for a user name and "
              << "password (" << status << ").\nUser name (empty: show the answer): ";
    request.user = ReadLine(true);
    if (request.user.empty()) return kPromptContinue;
    std::cerr << "Password: ";
    request.password = ReadLine(false);
    return kPromptRetry;
  }
  std::cerr << FormatErrorMessage(error) << "\nConnect anyway? [y/N] ";
  const std::string answer = ReadLine(true);
  return answer == "y" || answer == "Y" || EqualsIgnoreCase(answer, "yes") ? kPromptRetry
                                                                           : kPromptCancel;
}

std::string StatusLine(const std::string& headers) {
  return headers.substr(0, headers.find_first_of("\r\n"));
}

// Several URLs ------------------------------------------------------------------

constexpr uint32_t kFetched = 0x8500;

struct Download {
  std::string url;
  HResult error = kOk;
  uint32_t status = 0;
  std::string status_line;
  std::string body;
  std::string transcript;
  bool done = false;
};

class DownloadRequest : public LookupRequest {
 public:
  DownloadRequest(Download& download, std::shared_ptr<HostWindow> window)
      : download_(download), window_(std::move(window)) {}
  void OnComplete() override {
    download_.error = error;
    download_.status = status_code;
    download_.body = std::move(body);
    const size_t line = transcript.find("<| ");
    if (line != std::string::npos) {
      download_.status_line = transcript.substr(line + 3, transcript.find('\r', line) - line - 3);
    }
    download_.transcript = std::move(transcript);
    download_.done = true;
  }
  std::string GetUrl() const override { return download_.url; }
  std::shared_ptr<HostWindow> GetOwnerWindow() const override { return window_; }
  uint32_t GetMessageId() const override { return kFetched; }

 private:
  Download& download_;
  std::shared_ptr<HostWindow> window_;
};

// A file name for each URL: its last path segment, made safe and unique.
std::vector<std::string> OutputNames(const std::vector<Download>& downloads) {
  std::vector<std::string> names;
  std::set<std::string> taken;
  for (size_t i = 0; i < downloads.size(); ++i) {
    std::string path = downloads[i].url.substr(0, downloads[i].url.find_first_of("?#"));
    std::string name = path.substr(path.rfind('/') + 1);
    if (path.find("://") + 2 == path.rfind('/')) name.clear();  // no path at all
    for (char& c : name) {
      if (static_cast<unsigned char>(c) < 0x20 || c == '\\') c = '_';
    }
    if (name.empty() || name == "." || name == "..") name = "index";
    if (!taken.insert(name).second) {
      name = std::to_string(i + 1) + "-" + name;
      taken.insert(name);
    }
    names.push_back(std::move(name));
  }
  return names;
}

// Writes a body into the folder; never over anything but a regular file.
std::string SaveBody(const std::filesystem::path& target, const std::string& body) {
  std::error_code ec;
  const auto status = std::filesystem::symlink_status(target, ec);
  if (!ec && std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    return target.string() + ": not a regular file, not replaced";
  }
  std::ofstream file(target, std::ios::binary | std::ios::trunc);
  file.write(body.data(), static_cast<std::streamsize>(body.size()));
  file.close();
  if (!file) return "cannot write " + target.string() + ": " + std::strerror(errno);
  return {};
}

struct MultiGetOptions {
  std::vector<std::string> urls;
  std::string folder;
  std::string headers;
  int jobs = 4;
  int interval_ms = 0;
  bool transcript = false;
};

int RunMultiGet(const MultiGetOptions& options, Context& context) {
  std::vector<Download> downloads;
  for (const std::string& url : options.urls) {
    std::string why;
    if (!ParseHttpUrl(url, &why)) throw CommandError(kExitUsage, url + ": " + why);
    downloads.emplace_back().url = url;
  }
  if (!options.folder.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(options.folder, ec);
    if (!std::filesystem::is_directory(options.folder)) {
      throw CommandError(kExitFailure, options.folder + ": not a folder" +
                                           (ec ? ": " + ec.message() : std::string()));
    }
  }
  LookupWorker* worker_ptr = nullptr;
  auto window = std::make_shared<MessageLoop>(
      [&](const HostMessage& m) -> intptr_t { return worker_ptr->CompleteFromMessage(m) ? 1 : 0; });
  LookupWorker worker(0, "", options.jobs, context.settings);
  worker_ptr = &worker;
  worker.min_interval = std::chrono::milliseconds(options.interval_ms);
  for (Download& download : downloads) {
    std::unique_ptr<LookupRequest> request = std::make_unique<DownloadRequest>(download, window);
    request->extra_headers = options.headers;
    worker.SubmitRequest(request);
    if (request != nullptr) download.error = kNotHttpAddress, download.done = true;
  }
  ProgressBar bar("Downloading", downloads.size(), context.stderr_is_terminal && !context.json);
  InterruptGuard interrupt;
  bool cancelled = false;
  while (!worker.IsWorkerIdle()) {
    if (InterruptGuard::interrupted()) {
      worker.CancelAllRequests();
      cancelled = true;
      break;
    }
    window->pump(std::chrono::milliseconds(20));
    bar.Update(static_cast<uint64_t>(std::count_if(downloads.begin(), downloads.end(),
                                                   [](const Download& d) { return d.done; })));
  }
  window->close();
  bar.Finish();

  const std::vector<std::string> names = OutputNames(downloads);
  Json all = Json::array();
  int exit_code = kExitOk;
  for (size_t i = 0; i < downloads.size(); ++i) {
    const Download& d = downloads[i];
    std::string saved, problem;
    if (!d.done) {
      problem = "cancelled";
    } else if (d.error != kOk) {
      problem = fmt::format("{} (0x{:08X})", FormatErrorMessage(d.error), d.error);
      exit_code = kExitNetwork;
    } else {
      if (d.status >= 400) exit_code = kExitNetwork;
      if (!options.folder.empty()) {
        const std::filesystem::path target = std::filesystem::path(options.folder) / names[i];
        problem = SaveBody(target, d.body);
        if (problem.empty()) {
          saved = target.string();
        } else {
          exit_code = exit_code == kExitOk ? kExitFailure : exit_code;
        }
      }
    }
    if (context.verbosity >= 2 && !options.transcript) std::cerr << d.transcript << '\n';
    if (context.json) {
      Json out{{"url", d.url},
               {"result", d.done ? d.error : kAborted},
               {"status", d.status},
               {"length", d.body.size()}};
      if (!problem.empty()) out["error"] = problem;
      if (!saved.empty()) out["file"] = saved;
      if (options.transcript) out["transcript"] = d.transcript;
      all.push_back(std::move(out));
    } else if (options.transcript) {
      std::cout << d.transcript << "\r\n";
    } else {
      std::cout << d.url << ": ";
      if (d.done && d.error == kOk) {
        std::cout << d.status_line << ", " << d.body.size() << " bytes";
        if (!saved.empty()) std::cout << " -> " << saved;
        if (!problem.empty()) std::cout << "; " << problem;
      } else {
        std::cout << problem;
      }
      std::cout << '\n';
    }
  }
  if (context.json) PrintJson(Json{{"cancelled", cancelled}, {"downloads", std::move(all)}});
  std::cout.flush();
  if (cancelled) {
    // Requests that were on the wire finish and are discarded; let them end
    // before the program does.
    LookupWorker::WaitForThreads(std::chrono::seconds(10));
    const auto finished =
        std::count_if(downloads.begin(), downloads.end(), [](const Download& d) { return d.done; });
    throw CommandError(kExitCancelled, fmt::format("cancelled after {} of {} downloads", finished,
                                                   downloads.size()));
  }
  return exit_code;
}

void Setup(CLI::App& app, Context& context) {
  CLI::App* http = app.add_subcommand("http", "Send HTTP requests through the library's transport");
  http->require_subcommand(1);

  static std::vector<std::string> urls;
  static std::string output;
  static int jobs = 4, interval_ms = 0;
  static std::vector<std::string> headers;
  static bool transcript = false;
  static double timeout = 30;
  static size_t max_size = size_t{64} << 20;

  CLI::App* get = http->add_subcommand(
      "get", "GET a URL with the configured proxy and agent; print the status and the body");
  get->add_option("url", urls,
                  "http://host[:port]/path?query (https on port 443); several URLs are "
                  "fetched a few at a time and need -o FOLDER to keep the bodies")
      ->required();
  get->add_option("-H,--header", headers, "Extra request header \"Name: value\" (repeatable)");
  get->add_flag("--transcript", transcript, "Print the connection transcript instead");
  get->add_option("-o,--output", output,
                  "Write the body to FILE; with several URLs, each body into the folder FOLDER");
  get->add_option("--jobs", jobs, "With several URLs: requests at a time")
      ->check(CLI::Range(1, 32))
      ->capture_default_str();
  get->add_option("--interval", interval_ms,
                  "With several URLs: milliseconds from the end of one request to the next")
      ->check(CLI::Range(0, 600000))
      ->capture_default_str();
  get->add_option("--timeout", timeout, "Seconds without data before giving up")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  get->add_option("--max-size", max_size, "Largest body accepted, in bytes")
      ->check(CLI::Range(size_t{1}, size_t{1} << 40))
      ->capture_default_str();
  get->callback([&context] {
    context.action = [&context] {
      std::string extra;
      for (const std::string& header : headers) {
        if (header.find(':') == std::string::npos ||
            header.find_first_of("\r\n") != std::string::npos) {
          throw CommandError(kExitUsage,
                             "--header: expected \"Name: value\", got \"" + header + "\"");
        }
        extra += header + "\r\n";
      }
      if (urls.size() > 1) {
        return RunMultiGet({urls, output, extra, jobs, interval_ms, transcript}, context);
      }
      const std::string& url = urls.front();
      std::string why;
      const std::optional<HttpUrl> target = ParseHttpUrl(url, &why);
      if (!target) throw CommandError(kExitUsage, url + ": " + why);

      HttpRequest request;
      ApplyInternetSettings(LoadInternetSettings(*context.settings), request);
      request.server = target->host;
      request.port = target->port;
      request.object = target->object;
      request.extra_headers = extra;
      request.receive_timeout = std::chrono::milliseconds(static_cast<int64_t>(timeout * 1000));
      request.max_body = max_size;
      if (context.stdin_is_terminal) {
        request.prompt = [&request](HResult error, uint32_t status) {
          return AskUser(request, error, status);
        };
      }

      std::string log = fmt::sprintf(
          LoadHostString(strings::kConnecting),
          request.access_type == AccessType::kNamedProxy ? request.proxy : request.server);
      context.Note(log);
      log += "\r\n";
      const HResult result =
          PerformWithProgress(request, context.stderr_is_terminal && !context.json);
      FormatHttpTranscript(log, request);
      if (context.verbosity >= 2 && !transcript) std::cerr << log << '\n';

      if (!output.empty() && !request.response_headers.empty()) {
        std::ofstream file(output, std::ios::binary | std::ios::trunc);
        file.write(request.response_body.data(),
                   static_cast<std::streamsize>(request.response_body.size()));
        file.close();
        if (!file) throw CommandError(kExitFailure, "cannot write " + output);
      }

      if (context.json) {
        Json out{{"url", url},
                 {"result", result},
                 {"status", request.status_code},
                 {"headers", request.response_headers},
                 {"length", request.response_body.size()}};
        if (result != kOk) out["error"] = FormatErrorMessage(result);
        if (transcript) out["transcript"] = log;
        if (output.empty()) {
          if (IsValidUtf8(request.response_body)) {
            out["body"] = request.response_body;
          } else {
            out["body_base64"] = Base64Encode(request.response_body);
          }
        }
        PrintJson(out);
      } else if (transcript) {
        std::cout << log;
        if (!log.ends_with("\r\n")) std::cout << "\r\n";
      } else if (!request.response_headers.empty()) {
        std::cout << StatusLine(request.response_headers) << '\n';
        if (output.empty() && isatty(STDOUT_FILENO) != 0 &&
            (!IsValidUtf8(request.response_body) ||
             request.response_body.find('\0') != std::string::npos)) {
          // Binary data would garble the terminal.
          std::cout << LoadHostString(strings::kBinaryBody) << " (" << request.response_body.size()
                    << " bytes; use --output FILE)\n";
        } else if (output.empty()) {
          std::cout << request.response_body;
        } else {
          std::cout << request.response_body.size() << " bytes written to " << output << '\n';
        }
      }
      std::cout.flush();

      if (result != kOk) Fail(result, "GET " + url);
      if (request.status_code >= 400) {
        throw CommandError(kExitNetwork, "GET " + url + ": the server answered " +
                                             StatusLine(request.response_headers));
      }
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("http", &Setup);

}  // namespace
}  // namespace dischive::cli
