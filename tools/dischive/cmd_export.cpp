// dischive export: the catalogue as a collection document.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/collection.h"
#include "dischive/errors.h"
#include "dischive/random_id.h"
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

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
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

  // A file is written under a temporary name and renamed when complete, so a
  // failed export never replaces an earlier document.
  std::filesystem::path final_path, temp_path;
  std::unique_ptr<std::FILE, FileCloser> file;
  std::FILE* stream = stdout;
  if (!options.output_path.empty()) {
    final_path = options.output_path;
    temp_path = final_path;
    temp_path += "." + NewRandomIdentifier() + ".tmp";
    file.reset(std::fopen(temp_path.c_str(), "wb"));
    if (!file) {
      throw CommandError(kExitFailure,
                         "cannot create " + final_path.string() + ": " + std::strerror(errno));
    }
    stream = file.get();
  }
  const auto discard = [&] {
    if (temp_path.empty()) return;
    file.reset();
    std::error_code ec;
    std::filesystem::remove(temp_path, ec);
  };

  FileOutput output(stream);
  CollectionWriter writer(*catalog, collection);
  ProgressBar progress("Exporting", catalog->AlbumCount(), context.stderr_is_terminal);
  HResult result = writer.Write(output, [&](size_t done, size_t total) {
    progress.SetTotal(total);
    progress.Update(done);
    return true;
  });
  progress.Finish();
  if (result == kOk && !output.Flush()) result = HResultFromErrno(output.error());
  if (result != kOk) {
    discard();
    const std::string target = final_path.empty() ? "standard output" : final_path.string();
    if (output.error() != 0) {
      throw CommandError(kExitFailure,
                         "cannot write to " + target + ": " + std::strerror(output.error()));
    }
    Fail(result, "export");
  }
  if (file) {
    if (std::fclose(file.release()) != 0) {
      const int error = errno;
      discard();
      throw CommandError(kExitFailure,
                         "cannot write to " + final_path.string() + ": " + std::strerror(error));
    }
    std::error_code ec;
    std::filesystem::rename(temp_path, final_path, ec);
    if (ec) {
      discard();
      throw CommandError(kExitFailure, "cannot write " + final_path.string() + ": " + ec.message());
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
