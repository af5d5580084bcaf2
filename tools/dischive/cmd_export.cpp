// dischive export: the catalogue as a collection document.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/collection.h"
#include "dischive/errors.h"
#include "platform/replace_file.h"
#include "progress.h"

namespace dischive::cli {
namespace {

// Writes to a C stream and remembers the first failure's errno.
class FileOutput : public XmlOutput {
 public:
  explicit FileOutput(std::FILE* file) : file_(file) {}
  bool Write(const char* data, size_t size) override {
    if (error_ != 0) return false;
    if (std::fwrite(data, 1, size, file_) != size) {
      error_ = errno != 0 ? errno : EIO;
      return false;
    }
    return true;
  }
  // Flushes; false (with error() set) when anything failed.
  bool Flush() {
    if (error_ == 0 && std::fflush(file_) != 0) error_ = errno != 0 ? errno : EIO;
    return error_ == 0;
  }
  int error() const { return error_; }

 private:
  std::FILE* file_;
  int error_ = 0;
};

// Writes a new version of the output file through a 64 KiB buffer.
class ReplacementOutput : public XmlOutput {
 public:
  explicit ReplacementOutput(platform::FileReplacement& file) : file_(file) {}
  bool Write(const char* data, size_t size) override {
    if (!error_.empty()) return false;
    buffer_.append(data, size);
    return buffer_.size() < kChunk || Flush();
  }
  // Writes what is buffered; false (with error() set) when anything failed.
  bool Flush() {
    if (error_.empty() && !buffer_.empty() && file_.Write(buffer_, &error_) != kOk) {
      if (error_.empty()) error_ = file_.target().string() + ": write failed";
    }
    buffer_.clear();
    return error_.empty();
  }
  const std::string& error() const { return error_; }

 private:
  static constexpr size_t kChunk = 64 * 1024;
  platform::FileReplacement& file_;
  std::string buffer_;
  std::string error_;
};

struct ExportOptions {
  std::string db_path;
  std::string output_path;
  std::string covers_path;
};

int RunExport(const Context& context, const ExportOptions& options) {
  if (context.json && options.output_path.empty()) {
    throw CommandError(kExitUsage, "--json needs -o FILE: standard output carries the JSON");
  }
  std::unique_ptr<CatalogEngine> catalog =
      OpenCliCatalog(context, options.db_path, /*for_writing=*/false);

  CollectionOptions collection;
  collection.cover_cache_dir = options.covers_path.empty()
                                   ? DefaultCoverCacheFolder()
                                   : std::filesystem::path(options.covers_path);
  collection.amazon_servers = ConfiguredAmazonServers(*context.settings);
  context.Note("cover cache: " + collection.cover_cache_dir.string());

  // A file is written beside the target and renamed over it when complete,
  // so a failed export never replaces an earlier document.
  const std::filesystem::path final_path = options.output_path;
  platform::FileReplacement replacement;
  if (!final_path.empty()) {
    std::string error;
    if (platform::FileReplacement::Begin(final_path, &replacement, &error) != kOk) {
      throw CommandError(kExitFailure, "cannot create " + error);
    }
  }
  FileOutput stdout_output(stdout);
  ReplacementOutput file_output(replacement);
  XmlOutput& output = final_path.empty() ? static_cast<XmlOutput&>(stdout_output) : file_output;

  CollectionWriter writer(*catalog, collection);
  ProgressBar progress("Exporting", catalog->AlbumCount(), context.stderr_is_terminal);
  HResult result = writer.Write(output, [&](size_t done, size_t total) {
    progress.SetTotal(total);
    progress.Update(done);
    return true;
  });
  progress.Finish();
  if (final_path.empty()) {
    if (result == kOk && !stdout_output.Flush()) result = HResultFromErrno(stdout_output.error());
    if (stdout_output.error() != 0) {
      throw CommandError(kExitFailure, "cannot write to standard output: " +
                                           std::string(std::strerror(stdout_output.error())));
    }
  } else {
    if (result == kOk && !file_output.Flush()) result = kFail;
    if (!file_output.error().empty()) {
      throw CommandError(kExitFailure, "cannot write to " + file_output.error());
    }
  }
  if (result != kOk) Fail(result, "export");
  if (!final_path.empty()) {
    std::string error;
    if (replacement.Commit(platform::FileReplacement::Flush::kFileAndFolder, &error) != kOk) {
      throw CommandError(kExitFailure, "cannot write " + error);
    }
  }

  const CollectionStats& stats = writer.stats();
  if (stats.cover_store_errors != 0) {
    std::cerr << "dischive: " << stats.cover_store_errors
              << " cover image(s) could not be stored in " << collection.cover_cache_dir.string()
              << '\n';
  }
  if (context.json) {
    PrintJson(Json{{"file", final_path.string()},
                   {"albums", stats.albums},
                   {"bytes", stats.bytes},
                   {"covers", stats.covers},
                   {"covers_stored", stats.covers_stored},
                   {"cover_store_errors", stats.cover_store_errors},
                   {"cover_cache", collection.cover_cache_dir.string()}});
  } else if (!final_path.empty()) {
    std::cerr << "Exported " << stats.albums << (stats.albums == 1 ? " album" : " albums") << " ("
              << stats.bytes << " bytes) to " << final_path.string() << '\n';
  }
  return kExitOk;
}

void Setup(CLI::App& app, Context& context) {
  static ExportOptions options;
  CLI::App* command = app.add_subcommand(
      "export", "Write the catalogue as a collection XML document (standard output by default)");
  AddDatabaseOption(command, options.db_path);
  command->add_option("-o,--output", options.output_path, "Write the document to FILE")
      ->type_name("FILE");
  command
      ->add_option("--covers", options.covers_path,
                   "Cover cache folder for uploaded covers (default: "
                   "$XDG_CACHE_HOME/dischive/covers)")
      ->type_name("DIR");
  command->callback(
      [&context] { context.action = [&context] { return RunExport(context, options); }; });
}

const CommandRegistrar registrar("export", &Setup);

}  // namespace
}  // namespace dischive::cli
