// The library scan: every folder below the library's roots, walked, read and
// written by three stages that overlap (see LibraryScan).
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>

#include "dischive/folder_scan.h"
#include "dischive/text.h"
#include "scan/folder_scan_internal.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

// The catalogue's scan states as they stood when a library scan began, read in
// two queries. Folder keys are held in lower case, as the catalogue's property
// names compare without regard to (ASCII) case.
struct ScanSnapshot {
  std::unordered_map<std::string, uint32_t> remembered;
  std::unordered_map<uint32_t, VolumeScanState> states;

  explicit ScanSnapshot(CatalogEngine& catalog) {
    for (auto& [key, value] : catalog.DatabaseProperties(detail::kFolderIdGroup)) {
      if (const auto id = detail::ParseRecordId(value)) remembered.emplace(ToLowerAscii(key), *id);
    }
    for (VolumeScanState& state : catalog.ScannedVolumes()) {
      const uint32_t id = state.record_id;
      states.emplace(id, std::move(state));
    }
  }

  // The record a folder became, by its key in lower case.
  std::optional<uint32_t> Remembered(const std::string& lower_key) const {
    const auto it = remembered.find(lower_key);
    return it == remembered.end() ? std::nullopt : std::optional(it->second);
  }
  std::optional<VolumeScanState> State(uint32_t id) const {
    const auto it = states.find(id);
    return it == states.end() ? std::nullopt : std::optional(it->second);
  }
};

// The snapshot alone, never the catalogue: what the readers of a library scan
// use to predict which folders are unchanged, so that they do not read their
// files. A wrong prediction costs time only; the catalogue's answer decides.
class SnapshotLookup final : public detail::RecordLookup {
 public:
  explicit SnapshotLookup(const ScanSnapshot& snapshot) : snapshot_(snapshot) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override {
    return snapshot_.Remembered(ToLowerAscii(key));
  }
  std::optional<VolumeScanState> State(uint32_t id) override { return snapshot_.State(id); }
  bool FolderExists(const std::string&) override { return true; }
  void Written(const std::string&, const VolumeScanState&) override {}

 private:
  const ScanSnapshot& snapshot_;
};

// The snapshot with the library scan's own writes laid over it. Only this scan
// writes scanned volumes while it runs (it holds the catalogue's write lock),
// so the two together are what the catalogue holds; a volume neither knows may
// still exist without a folder, and the catalogue is asked about it.
class LibraryLookup final : public detail::RecordLookup {
 public:
  LibraryLookup(CatalogEngine& catalog, const ScanSnapshot& snapshot)
      : live_(catalog), snapshot_(snapshot) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override {
    const std::string lower = ToLowerAscii(key);
    if (const auto it = remembered_.find(lower); it != remembered_.end()) return it->second;
    return snapshot_.Remembered(lower);
  }
  std::optional<VolumeScanState> State(uint32_t id) override {
    if (const auto it = states_.find(id); it != states_.end()) return it->second;
    if (auto state = snapshot_.State(id)) return state;
    return live_.State(id);
  }
  bool FolderExists(const std::string& path) override { return live_.FolderExists(path); }
  void Written(const std::string& key, const VolumeScanState& state) override {
    remembered_[ToLowerAscii(key)] = state.record_id;
    states_[state.record_id] = state;
  }

 private:
  detail::CatalogLookup live_;
  const ScanSnapshot& snapshot_;
  std::unordered_map<std::string, uint32_t> remembered_;
  std::unordered_map<uint32_t, VolumeScanState> states_;
};

// Visits a folder and its subfolders, in name order, parents before children,
// reading each folder once; with each folder comes its key.
void WalkFolders(
    const fs::path& root, const std::vector<std::string>& extensions,
    const std::function<void(fs::path, std::string key, detail::FolderContents)>& visit) {
  std::vector<std::pair<fs::path, std::string>> stack;
  stack.emplace_back(root, FolderKey(root));
  while (!stack.empty()) {
    auto [folder, key] = std::move(stack.back());
    stack.pop_back();
    detail::FolderContents contents = detail::ReadFolderContents(folder, extensions);
    // The key of a subfolder is its parent's and its name: a folder's name is
    // never "." or "..", so the path stays normal.
    const std::string_view separator = key == "/" ? "" : "/";
    for (auto it = contents.subfolders.rbegin(); it != contents.subfolders.rend(); ++it)
      stack.emplace_back(folder / *it, fmt::format("{}{}{}", key, separator, *it));
    contents.subfolders.clear();
    visit(std::move(folder), std::move(key), std::move(contents));
  }
}

// One folder of a library scan: listed and judged by the walk, its files read
// by a reader thread when they must be, its album written in folder order.
struct PendingFolder {
  fs::path folder;
  const fs::path* root = nullptr;
  std::string key;
  FolderListing listing;
  std::vector<std::string> log_lines;  // kept for the scan log, in order
  std::optional<uint32_t> find_error;
  detail::FolderStart start;
  bool read = false;                           // the readers read its files
  std::optional<detail::InferredAlbum> album;  // the album its files give
  size_t held_bytes = 0;                       // about what that takes in memory
  std::string failure;
};

// Reader threads that read the files of the folders a library scan hands
// them, in order, while the walk goes on and the writer writes. They stay at
// most kAheadFolders folders and about kAheadBytes of pictures ahead of the
// writer, so that a large library does not sit in memory.
class FolderReaders {
 public:
  using ReadFn = std::function<void(PendingFolder&)>;

  explicit FolderReaders(ReadFn read) : read_(std::move(read)) {
    const size_t count = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
    for (size_t i = 0; i < count; ++i)
      threads_.emplace_back([this] { Run(); });
  }
  ~FolderReaders() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    room_.notify_all();
    for (std::thread& t : threads_)
      t.join();
  }
  FolderReaders(const FolderReaders&) = delete;
  FolderReaders& operator=(const FolderReaders&) = delete;

  // Hands over folder number `index`; the folder must stay where it is until
  // Wait(index) returns.
  void Add(size_t index, PendingFolder* folder) {
    std::lock_guard lock(mutex_);
    queue_.emplace_back(index, folder);
    room_.notify_one();
  }
  // Waits until the files of folder `index` (handed over before) are read.
  void Wait(size_t index) {
    std::unique_lock lock(mutex_);
    awaited_ = index;
    ready_cv_.wait(lock, [&] { return done_.count(index) != 0; });
    awaited_.reset();
    done_.erase(index);
  }
  // The writer is done with the folders before `index`, which held `bytes`.
  void Consumed(size_t index, size_t bytes) {
    std::lock_guard lock(mutex_);
    consumed_ = index;
    held_bytes_ -= std::min(held_bytes_, bytes);
    room_.notify_all();
  }

 private:
  static constexpr size_t kAheadFolders = 256;
  static constexpr size_t kAheadBytes = 64u << 20;

  bool HasRoom() const {
    return !queue_.empty() && (queue_.front().first < consumed_ + kAheadFolders &&
                               (held_bytes_ < kAheadBytes || queue_.front().first <= consumed_));
  }

  void Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      room_.wait(lock, [&] { return stop_ || HasRoom(); });
      if (stop_) return;
      const auto [index, folder] = queue_.front();
      queue_.pop_front();
      lock.unlock();
      read_(*folder);
      size_t bytes = 0;
      if (folder->album) {
        bytes = folder->album->cover.size();
        for (const TrackRecord& t : folder->album->volume.tracks)
          bytes += 512 + t.properties.Text(field::kLyrics).size();
      }
      folder->held_bytes = bytes;
      lock.lock();
      held_bytes_ += bytes;
      done_.insert(index);
      if (awaited_ == index) ready_cv_.notify_one();
    }
  }

  ReadFn read_;
  std::mutex mutex_;
  std::condition_variable room_, ready_cv_;
  std::deque<std::pair<size_t, PendingFolder*>> queue_;
  std::set<size_t> done_;
  std::optional<size_t> awaited_;
  size_t consumed_ = 0;
  size_t held_bytes_ = 0;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

std::vector<fs::path> CollectFolders(const fs::path& root) {
  std::vector<fs::path> out;
  WalkFolders(root, {}, [&out](fs::path folder, std::string, detail::FolderContents) {
    out.push_back(std::move(folder));
  });
  return out;
}

namespace {

// A library scan in three stages that overlap:
//  - the walk (a thread of its own) reads every folder once and judges it
//    against the snapshot, so that the files of an unchanged folder are never
//    opened;
//  - the readers (FolderReaders) read the files of the folders the walk hands
//    them and build their albums;
//  - the writer (the calling thread) takes the folders in order, decides each
//    against the catalogue and writes it, committing in batches.
class LibraryScan {
 public:
  LibraryScan(FolderScanner& scanner, const ScanSnapshot& snapshot,
              const std::vector<fs::path>& roots, const LibraryProgress& progress,
              const FolderDone& on_folder)
      : scanner_(scanner),
        options_(scanner.options()),
        catalog_(scanner.catalog()),
        snapshot_(snapshot),
        roots_(roots),
        progress_(progress),
        on_folder_(on_folder),
        readers_([this](PendingFolder& f) { ReadFiles(f); }) {}

  LibraryScanSummary Run() {
    std::thread walker([this] { Walk(); });
    struct JoinWalker {
      std::thread& thread;
      ~JoinWalker() { thread.join(); }
    } join_walker{walker};
    in_batch_ = catalog_.BeginBatch() == kOk;
    batch_start_ = std::chrono::steady_clock::now();
    size_t walked = 0;
    for (size_t i = 0;; ++i) {
      PendingFolder* next = NextFolder(i, &walked);
      if (next == nullptr) break;
      Write(i, walked, *next);
    }
    EndBatch();
    summary_.folders = walked;
    std::lock_guard lock(walk_mutex_);
    if (!walk_failure_.empty()) {
      ++summary_.failed;
      summary_.failures.emplace_back(fs::path(), "cannot walk the library: " + walk_failure_);
    }
    if (progress_) progress_(walked, walked, summary_.files, {});
    return std::move(summary_);
  }

 private:
  using Steps = detail::FolderScanSteps;
  static constexpr size_t kBatchAlbums = 100;
  static constexpr auto kBatchTime = std::chrono::seconds(2);
  // Waking for every folder would cost more than a rescan spends on one: the
  // writer sleeps until a batch of folders is ready.
  static constexpr size_t kWakeBatch = 64;

  // The walk, on its own thread.
  void Walk() {
    try {
      for (const fs::path& root : roots_) {
        WalkFolders(root, options_.extensions,
                    [&](fs::path folder, std::string key, detail::FolderContents contents) {
                      auto f = std::make_unique<PendingFolder>();
                      f->folder = std::move(folder);
                      f->root = &root;
                      f->key = std::move(key);
                      Judge(*f, contents);
                      std::lock_guard lock(walk_mutex_);
                      if (f->read) readers_.Add(folders_.size(), f.get());
                      folders_.push_back(std::move(f));
                      if (folders_.size() >= wanted_) walked_cv_.notify_one();
                    });
      }
    } catch (const std::exception& e) {
      std::lock_guard lock(walk_mutex_);
      walk_failure_ = e.what();
    }
    std::lock_guard lock(walk_mutex_);
    walk_done_ = true;
    walked_cv_.notify_one();
  }

  // Lists a folder walked and predicts from the snapshot whether its files
  // must be read. Its log lines are kept for the writer.
  void Judge(PendingFolder& f, const detail::FolderContents& contents) {
    try {
      std::optional<ScanLog> log;
      if (options_.log != nullptr)
        log.emplace([&f](std::string_view line) { f.log_lines.emplace_back(line); });
      detail::ListingFromContents(
          f.folder, options_.extensions, contents, f.listing, log ? &*log : nullptr,
          [&f](const fs::path&, uint32_t error) { f.find_error = error; }, false);
      f.start = Steps::Start(scanner_, f.folder, f.listing, log ? &*log : nullptr);
      if (!f.start.done) {
        SnapshotLookup lookup(snapshot_);
        f.read = !Steps::Unchanged(
            scanner_, Steps::Choose(f.key, f.listing, f.start.attached, lookup), f.listing);
      }
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      f.failure = e.what();
      f.read = false;
    }
  }

  // A reader thread's work on one folder.
  void ReadFiles(PendingFolder& f) {
    try {
      f.album = Steps::Build(scanner_, f.folder, *f.root, f.key, f.listing);
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      f.failure = e.what();
    }
  }

  // The next folder the walk has handed over, and the number walked so far;
  // nullptr when the walk is over and every folder was taken.
  PendingFolder* NextFolder(size_t index, size_t* walked) {
    std::unique_lock lock(walk_mutex_);
    if (index >= folders_.size() && !walk_done_) {
      wanted_ = index + kWakeBatch;
      walked_cv_.wait(lock, [&] { return walk_done_ || folders_.size() >= wanted_; });
    }
    *walked = folders_.size();
    return index < folders_.size() ? folders_[index].get() : nullptr;
  }

  // The writer's work on folder `index`, in folder order.
  void Write(size_t index, size_t walked, PendingFolder& f) {
    if (progress_) progress_(index, walked, summary_.files, f.folder);
    if (f.read) readers_.Wait(index);
    if (options_.log != nullptr) {
      for (const std::string& line : f.log_lines)
        options_.log->Write(line);
    }
    if (f.find_error && options_.on_error) options_.on_error(f.folder, *f.find_error);
    const FolderScanResult r = Decide(f);
    // The folder's memory goes as soon as it is done.
    const fs::path folder = std::move(f.folder);
    const size_t held = f.held_bytes;
    f = PendingFolder{};
    readers_.Consumed(index + 1, held);
    summary_.files += r.files;
    if (r.outcome == FolderOutcome::kAdded || r.outcome == FolderOutcome::kUpdated) NextWrite();
    // A folder's lines reach the log before the next folder starts, so that
    // the log of an interrupted scan ends where the scan stopped.
    if (options_.log != nullptr) options_.log->Flush();
    if (on_folder_) on_folder_(folder, r);
    Count(folder, r);
  }

  FolderScanResult Decide(PendingFolder& f) {
    if (!f.failure.empty()) {
      FolderScanResult r;
      r.files = f.listing.files.size();
      r.outcome = FolderOutcome::kFailed;
      r.message = f.failure;
      return r;
    }
    if (f.start.done) return *f.start.done;
    try {
      // When the snapshot said unchanged and the catalogue, which this scan
      // has written to since, says otherwise (a folder scanned twice, a record
      // another folder took), the files are read now.
      return Steps::DecideAndWrite(scanner_, f.folder, f.key, f.listing, f.start, lookup_, [&] {
        return f.album ? std::move(*f.album)
                       : Steps::Build(scanner_, f.folder, *f.root, f.key, f.listing);
      });
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      FolderScanResult r;
      r.files = f.listing.files.size();
      r.outcome = FolderOutcome::kFailed;
      r.message = e.what();
      return r;
    }
  }

  // Counts an album written, and commits the batch when it is full or old.
  void NextWrite() {
    ++batch_writes_;
    if (batch_writes_ < kBatchAlbums &&
        std::chrono::steady_clock::now() - batch_start_ < kBatchTime)
      return;
    EndBatch();
    in_batch_ = catalog_.BeginBatch() == kOk;
    batch_writes_ = 0;
    batch_start_ = std::chrono::steady_clock::now();
  }

  void EndBatch() {
    if (in_batch_ && catalog_.CommitBatch() != kOk) {
      summary_.failed += batch_writes_;
      summary_.failures.emplace_back(fs::path(),
                                     "cannot commit to the catalogue: " + catalog_.LastErrorText());
    }
    in_batch_ = false;
  }

  void Count(const fs::path& folder, const FolderScanResult& r) {
    switch (r.outcome) {
      case FolderOutcome::kNoFiles:
        ++summary_.empty;
        break;
      case FolderOutcome::kExcluded:
        ++summary_.excluded;
        break;
      case FolderOutcome::kAttached:
      case FolderOutcome::kUnchanged:
        ++summary_.skipped;
        break;
      case FolderOutcome::kAdded:
        ++summary_.added;
        break;
      case FolderOutcome::kUpdated:
        ++summary_.updated;
        break;
      case FolderOutcome::kFailed:
        ++summary_.failed;
        summary_.failures.emplace_back(folder, r.message);
        break;
    }
  }

  FolderScanner& scanner_;
  const FolderScanOptions& options_;
  CatalogEngine& catalog_;
  const ScanSnapshot& snapshot_;
  const std::vector<fs::path>& roots_;
  const LibraryProgress& progress_;
  const FolderDone& on_folder_;
  LibraryScanSummary summary_;
  LibraryLookup lookup_{catalog_, snapshot_};

  // Handed from the walk to the writer under walk_mutex_.
  std::mutex walk_mutex_;
  std::condition_variable walked_cv_;
  std::vector<std::unique_ptr<PendingFolder>> folders_;
  bool walk_done_ = false;
  size_t wanted_ = 0;  // the writer sleeps until the walk has this many folders
  std::string walk_failure_;

  // After folders_: the reader threads end before the folders go.
  FolderReaders readers_;

  bool in_batch_ = false;
  size_t batch_writes_ = 0;
  std::chrono::steady_clock::time_point batch_start_;
};

}  // namespace

LibraryScanSummary ScanLibrary(FolderScanner& scanner, const std::vector<fs::path>& roots,
                               const LibraryProgress& progress, const FolderDone& on_folder) {
  // The catalogue's scan states as they stand now, in two queries.
  std::optional<ScanSnapshot> snapshot;
  try {
    snapshot.emplace(scanner.catalog());
  } catch (const FatalDatabaseError& e) {
    LibraryScanSummary summary;
    summary.failures.emplace_back(fs::path(), e.what());
    ++summary.failed;
    return summary;
  }
  return LibraryScan(scanner, *snapshot, roots, progress, on_folder).Run();
}

}  // namespace dischive
