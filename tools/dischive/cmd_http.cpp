// dischive http get URL: one request through the library's transport, with
// the configured proxy and agent; prints the status and the body, or the
// connection transcript.
#include <fmt/format.h>
#include <fmt/printf.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <optional>

#include "cli.h"
#include "dischive/codec.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "dischive/text.h"
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

void Setup(CLI::App& app, Context& context) {
  CLI::App* http = app.add_subcommand("http", "Send HTTP requests through the library's transport");
  http->require_subcommand(1);

  static std::string url, output;
  static std::vector<std::string> headers;
  static bool transcript = false;
  static double timeout = 30;
  static size_t max_size = size_t{64} << 20;

  CLI::App* get = http->add_subcommand(
      "get", "GET a URL with the configured proxy and agent; print the status and the body");
  get->add_option("url", url, "http://host[:port]/path?query (https on port 443)")->required();
  get->add_option("-H,--header", headers, "Extra request header \"Name: value\" (repeatable)");
  get->add_flag("--transcript", transcript, "Print the connection transcript instead");
  get->add_option("-o,--output", output, "Write the body to FILE");
  get->add_option("--timeout", timeout, "Seconds without data before giving up")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  get->add_option("--max-size", max_size, "Largest body accepted, in bytes")
      ->check(CLI::Range(size_t{1}, size_t{1} << 40))
      ->capture_default_str();
  get->callback([&context] {
    context.action = [&context] {
      std::string why;
      const std::optional<HttpUrl> target = ParseHttpUrl(url, &why);
      if (!target) throw CommandError(kExitUsage, url + ": " + why);

      HttpRequest request;
      ApplyInternetSettings(LoadInternetSettings(*context.settings), request);
      request.server = target->host;
      request.port = target->port;
      request.object = target->object;
      for (const std::string& header : headers) {
        if (header.find(':') == std::string::npos ||
            header.find_first_of("\r\n") != std::string::npos) {
          throw CommandError(kExitUsage,
                             "--header: expected \"Name: value\", got \"" + header + "\"");
        }
        request.extra_headers += header + "\r\n";
      }
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
      ProgressBar bar("Downloading", 0, context.stderr_is_terminal && !context.json);
      request.progress = [&bar](uint64_t received, uint64_t expected) {
        bar.SetTotal(expected);
        bar.Update(received);
        return true;
      };
      const HResult result = PerformHttpRequest(request);
      bar.Finish();
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
