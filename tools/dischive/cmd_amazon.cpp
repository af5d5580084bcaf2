// dischive amazon: album search and lookup in the Amazon product search
// service, signing of request URLs, and cover downloads.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>

#include "cli.h"
#include "dischive/amazon.h"
#include "dischive/http.h"
#include "dischive/strings.h"
#include "platform/replace_file.h"
#include "progress.h"

namespace dischive::cli {
namespace {

struct Options {
  std::string text;
  bool artist = false;
  bool classical = false;
  int page = 1;
  bool images = false;
  bool reviews = false;
  bool url_only = false;
  std::string index;
  std::string url;
  std::string timestamp;
  std::string output;
};

Options options;

AmazonSettings RequireSettings(const Context& context, bool secret_only) {
  AmazonSettings settings = LoadAmazonSettings(*context.settings);
  const std::string missing = secret_only
                                  ? (settings.secret_key.empty() ? "AmazonSearch.SecretKey" : "")
                                  : settings.MissingKeys();
  if (!missing.empty()) {
    throw CommandError(kExitUsage, "the Amazon keys are not set: set " + missing +
                                       " (dischive config set GROUP.KEY VALUE, or --set)");
  }
  return settings;
}

// Throws when standard output could not be written (a full disk, a closed pipe).
void FlushStdout() {
  std::cout.flush();
  if (!std::cout) {
    throw CommandError(kExitFailure,
                       std::string("standard output: ") + std::strerror(errno != 0 ? errno : EIO));
  }
}

void PrintJsonSafely(const Json& value) {
  std::cout << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

Json AlbumJson(const AmazonAlbum& album) {
  Json discs = Json::array();
  for (const AmazonDisc& disc : album.tracks) {
    discs.push_back(Json{{"number", disc.number}, {"tracks", disc.tracks}});
  }
  Json out{{"asin", album.asin},
           {"artist", album.artist},
           {"title", album.title},
           {"label", album.label},
           {"release_date", album.release_date},
           {"discs", album.discs},
           {"tracks", discs}};
  if (!album.small_image.empty()) {
    out["images"] = Json{
        {"small", album.small_image}, {"medium", album.medium_image}, {"large", album.large_image}};
  }
  if (!album.editorial_review.empty()) out["review"] = album.editorial_review;
  if (!album.detail_page.empty()) out["detail_page"] = album.detail_page;
  return out;
}

void PrintAlbum(const AmazonAlbum& album) {
  std::cout << album.asin << "  " << (album.artist.empty() ? "-" : album.artist) << " / "
            << (album.title.empty() ? "-" : album.title) << '\n';
  if (!album.label.empty() || !album.release_date.empty()) {
    std::cout << "  Label: " << (album.label.empty() ? "-" : album.label)
              << "   Released: " << (album.release_date.empty() ? "-" : album.release_date) << '\n';
  }
  for (const AmazonDisc& disc : album.tracks) {
    if (album.tracks.size() > 1) std::cout << "  Disc " << disc.number << '\n';
    for (size_t i = 0; i < disc.tracks.size(); ++i) {
      std::cout << "  " << (i + 1 < 10 ? " " : "") << i + 1 << ". " << disc.tracks[i] << '\n';
    }
  }
  for (const auto& [name, url] : {std::pair{"Small image:  ", &album.small_image},
                                  std::pair{"Medium image: ", &album.medium_image},
                                  std::pair{"Large image:  ", &album.large_image}}) {
    if (!url->empty()) std::cout << "  " << name << *url << '\n';
  }
  if (!album.editorial_review.empty()) std::cout << "  Review: " << album.editorial_review << '\n';
}

// Sends a signed URL and reads the answer; throws with the service's words.
AmazonAnswer Fetch(const Context& context, const std::string& url, const std::string& what) {
  HttpRequest request;
  ApplyInternetSettings(LoadInternetSettings(*context.settings), request);
  context.Note("GET " + url);
  AmazonAnswer answer;
  const HResult result = FetchAmazonAnswer(url, request, answer);
  if (context.verbosity >= 2) {
    std::string log;
    FormatHttpTranscript(log, request);
    std::cerr << log << '\n';
  }
  const std::string server = request.server + ":" + std::to_string(request.port);
  if (result == kOk || result == kNoFreedbMatch) return answer;
  if (result == kHttpStatusNotOk || result == kFreedbServiceError) {
    std::string message = answer.error_message;
    if (!answer.error_code.empty() && message != answer.error_code) {
      message += " (" + answer.error_code + ")";
    }
    throw CommandError(kExitNetwork, what + ": " + server + ": " + message);
  }
  Fail(result, what + ": " + server);
}

int RunQuery(const Context& context, bool lookup) {
  const AmazonSettings settings = RequireSettings(context, false);
  const auto now = std::chrono::system_clock::now();
  const std::string group = AlbumResponseGroup(options.images, options.reviews);
  std::string url;
  std::string what;
  if (lookup) {
    // The service takes a search index only with bar codes (EAN, UPC); an
    // ASIN is looked up across all of them.
    const bool barcode =
        !options.text.empty() && options.text.find_first_not_of("0123456789") == std::string::npos;
    what = "lookup " + options.text;
    url = barcode
              ? LookupItemInIndex(settings, options.text, options.index == "Classical", group, now)
              : LookupItem(settings, options.text, group, now);
  } else {
    what = "search \"" + options.text + "\"";
    url = options.artist ? SearchAlbumsByArtist(settings, options.text, options.classical,
                                                options.page, group, now)
                         : SearchAlbumsByKeywords(settings, options.text, options.classical,
                                                  options.page, group, now);
  }
  if (options.url_only) {
    std::cout << url << '\n';
    FlushStdout();
    return kExitOk;
  }
  const AmazonAnswer answer = Fetch(context, url, what);
  if (context.json) {
    Json albums = Json::array();
    for (const AmazonAlbum& album : answer.albums)
      albums.push_back(AlbumJson(album));
    Json out{{"albums", albums}};
    if (!lookup) {
      out["page"] = options.page;
      out["total_results"] = answer.total_results;
      out["total_pages"] = answer.total_pages;
    }
    if (answer.albums.empty()) out["message"] = answer.error_message;
    PrintJsonSafely(out);
  } else {
    for (size_t i = 0; i < answer.albums.size(); ++i) {
      if (i > 0) std::cout << '\n';
      PrintAlbum(answer.albums[i]);
    }
    if (!lookup && answer.total_pages > 1) {
      std::cout << "\nPage " << options.page << " of " << answer.total_pages << " ("
                << answer.total_results << " albums; --page N for more)\n";
    }
  }
  FlushStdout();
  if (answer.albums.empty()) {
    throw CommandError(kExitNoMatch, what + ": " + answer.error_message);
  }
  return kExitOk;
}

int RunSign(const Context& context) {
  const AmazonSettings settings = RequireSettings(context, true);
  auto now = std::chrono::system_clock::now();
  if (!options.timestamp.empty()) {
    std::tm tm{};
    const char* end = strptime(options.timestamp.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (end == nullptr || std::string_view(end) != "Z") {
      throw CommandError(kExitUsage, "--timestamp: expected YYYY-MM-DDTHH:MM:SSZ, got \"" +
                                         options.timestamp + "\"");
    }
    now = std::chrono::system_clock::from_time_t(timegm(&tm));
  }
  std::string error;
  const std::optional<SignedAmazonUrl> signed_url =
      SignAmazonUrl(options.url, settings.secret_key, now, error);
  if (!signed_url) throw CommandError(kExitUsage, options.url + ": " + error);
  if (context.json) {
    PrintJsonSafely(Json{{"url", signed_url->url},
                         {"string_to_sign", signed_url->canonical_text},
                         {"signature", signed_url->signature}});
  } else {
    if (context.verbosity > 0) std::cerr << signed_url->canonical_text << '\n';
    std::cout << signed_url->url << '\n';
  }
  FlushStdout();
  return kExitOk;
}

// A complete download replaces the file at once; a failed one leaves it as it
// was. Devices and FIFOs are written through, never replaced.
void SaveFile(const std::string& target, const std::string& bytes) {
  std::string error;
  if (platform::ReplaceFile(target, bytes, &error) != kOk) {
    throw CommandError(kExitFailure, error.empty() ? target + ": write failed" : error);
  }
}

int RunCover(const Context& context) {
  const AmazonSettings settings = RequireSettings(context, false);
  const std::string url = LookupItem(settings, options.text, AlbumResponseGroup(true, false),
                                     std::chrono::system_clock::now());
  if (options.url_only) {
    std::cout << url << '\n';
    FlushStdout();
    return kExitOk;
  }
  const AmazonAnswer answer = Fetch(context, url, "cover " + options.text);
  if (answer.albums.empty()) {
    throw CommandError(kExitNoMatch, "cover " + options.text + ": " + answer.error_message);
  }
  const std::string& image = answer.albums.front().LargestImage();
  if (image.empty()) {
    throw CommandError(kExitNoMatch, "cover " + options.text + ": the item has no image");
  }

  HttpRequest request;
  ApplyInternetSettings(LoadInternetSettings(*context.settings), request);
  if (!SetRequestUrl(image, request)) {
    throw CommandError(kExitNetwork, "cover " + options.text + ": unusable image address " + image);
  }
  request.max_body = size_t{32} << 20;
  request.deadline = AmazonRequestDeadline(*context.settings);
  context.Note("GET " + image);
  const HResult result = PerformWithProgress(request, context.stderr_is_terminal && !context.json);
  const std::string server = request.server + ":" + std::to_string(request.port);
  if (result != kOk) Fail(result, "GET " + image);
  if (request.status_code != 200 || request.response_body.empty()) {
    throw CommandError(kExitNetwork, "GET " + image + ": " + server + " answered HTTP " +
                                         std::to_string(request.status_code) +
                                         (request.response_body.empty() ? " with no data" : ""));
  }
  SaveFile(options.output, request.response_body);
  if (context.json) {
    PrintJsonSafely(Json{{"asin", options.text},
                         {"url", image},
                         {"file", options.output},
                         {"bytes", request.response_body.size()}});
  } else {
    std::cout << request.response_body.size() << " bytes written to " << options.output << '\n';
  }
  FlushStdout();
  return kExitOk;
}

void Setup(CLI::App& app, Context& context) {
  CLI::App* amazon = app.add_subcommand(
      "amazon",
      "Find albums and covers in the Amazon product search service (needs the keys "
      "AmazonSearch.AccessKeyId, SecretKey and AssociateTag)");
  amazon->require_subcommand(1);

  const auto add_groups = [](CLI::App* command) {
    command->add_flag("--images", options.images, "Ask for the image URLs");
    command->add_flag("--reviews", options.reviews, "Ask for the editorial review");
    command->add_flag("--url-only", options.url_only, "Print the signed URL and send nothing");
  };

  CLI::App* search = amazon->add_subcommand("search", "Search albums by keywords or artist");
  search->add_option("text", options.text, "Words to search for")->required();
  search->add_flag("--artist", options.artist, "Search by artist name instead of keywords");
  search->add_flag("--classical", options.classical, "Search the Classical index, not Music");
  search->add_option("--page", options.page, "Result page (10 albums each)")
      ->check(CLI::Range(1, 10))
      ->capture_default_str();
  add_groups(search);
  search->callback(
      [&context] { context.action = [&context] { return RunQuery(context, false); }; });

  CLI::App* lookup =
      amazon->add_subcommand("lookup", "Look up one album by ASIN, or by EAN/UPC bar code");
  lookup->add_option("id", options.text, "ASIN, or bar code digits")->required();
  lookup->add_option("--index", options.index, "Index for bar codes")
      ->check(CLI::IsMember({"Music", "Classical"}))
      ->default_str("Music");
  add_groups(lookup);
  lookup->callback([&context] { context.action = [&context] { return RunQuery(context, true); }; });

  CLI::App* sign = amazon->add_subcommand(
      "sign", "Sign a request URL with the configured secret key (to check your keys)");
  sign->add_option("url", options.url, "Unsigned URL, http://host/onca/xml?...")->required();
  sign->add_option("--timestamp", options.timestamp,
                   "Time to sign with, YYYY-MM-DDTHH:MM:SSZ (default now), unless the URL has "
                   "a Timestamp");
  sign->callback([&context] { context.action = [&context] { return RunSign(context); }; });

  CLI::App* cover = amazon->add_subcommand("cover", "Download the largest image of an item");
  cover->add_option("asin", options.text, "The item's ASIN")->required();
  cover->add_option("-o,--output", options.output, "File to write the image to")->required();
  cover->add_flag("--url-only", options.url_only, "Print the signed lookup URL and send nothing");
  cover->callback([&context] { context.action = [&context] { return RunCover(context); }; });
}

const CommandRegistrar registrar("amazon", &Setup);

}  // namespace
}  // namespace dischive::cli
