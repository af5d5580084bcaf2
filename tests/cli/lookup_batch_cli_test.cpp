#include <gtest/gtest.h>

#include <fmt/format.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "dischive/cddb.h"
#include "support/fake_freedb.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

// What the fake server does with a disc of the batch.
enum class Outcome { kFound, kNone, kAmbiguous, kBroken };

struct BatchDiscCase {
  DiscToc toc;
  Outcome outcome;
};

// 100 discs of distinct ids, the four outcomes in turn.
std::vector<BatchDiscCase> MakeDiscs(FakeFreedbDatabase& db) {
  std::vector<BatchDiscCase> discs;
  std::set<uint32_t> ids;
  for (uint32_t k = 0; discs.size() < 100; ++k) {
    const uint32_t tracks = 2 + k % 5;
    std::vector<uint32_t> offsets;
    for (uint32_t t = 0; t < tracks; ++t)
      offsets.push_back(150 + t * (9000 + 75 * k));
    std::string error;
    const auto toc = MakeDiscToc(offsets, 2 + offsets.back() / 75 + 60 + k, &error);
    if (!toc || !ids.insert(toc->disc_id).second) continue;
    const auto outcome = static_cast<Outcome>(discs.size() % 4);
    const std::string dtitle =
        fmt::format("Artist {} / Album {} of songs", discs.size(), discs.size());
    std::vector<std::string> titles(tracks, "t");
    if (outcome == Outcome::kFound) {
      db.Add({"rock", toc->disc_id, 0, true, dtitle,
              MakeXmcd(toc->disc_id, dtitle, 2001, "", titles)});
    } else if (outcome == Outcome::kAmbiguous) {
      for (const char* category : {"misc", "folk"})
        db.Add({category, toc->disc_id, 0, false, dtitle,
                MakeXmcd(toc->disc_id, dtitle, 2001, "", titles)});
    }
    discs.push_back({*toc, outcome});
  }
  return discs;
}

std::string DiscLine(const DiscToc& toc) {
  std::string line = fmt::format("{:08x} {}", toc.disc_id, toc.track_count);
  for (uint32_t t = 0; t < toc.track_count; ++t)
    line += fmt::format(" {}", toc.frame_offsets[t]);
  return line + fmt::format(" {}\n", toc.disc_length_seconds);
}

TEST(LookupBatchCliTest, HundredDiscsGiveOneResultEachInOrder) {
  TempDir home;
  auto db = std::make_shared<FakeFreedbDatabase>();
  const std::vector<BatchDiscCase> discs = MakeDiscs(*db);
  FakeFreedbHttpServer http{db};
  std::set<std::string> broken;
  std::string batch = "# discs to look up\n\n";
  for (const BatchDiscCase& d : discs) {
    if (d.outcome == Outcome::kBroken) broken.insert(fmt::format("{:08x}", d.toc.disc_id));
    batch += DiscLine(d.toc);
  }
  http.SetOverride([&](const std::string& cmd) -> std::optional<std::string> {
    for (const std::string& id : broken) {
      if (cmd.find(id) != std::string::npos) return "451 server trouble\n";
    }
    return std::nullopt;
  });
  // A cue sheet line and one that names no disc at all.
  WriteFile(home / "one.cue",
            "FILE \"a.flac\" WAVE\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
            "  TRACK 02 AUDIO\n    INDEX 01 03:20:00\n");
  batch += (home / "one.cue").string() + " 402\nnot a disc\n";
  WriteFile(home / "batch.txt", batch);
  WriteFile(
      home / "config" / "dischive" / "dischive.ini",
      "[internet2]\npreconfig_http_proxy=0\nmin_interval_ms=0\nacquire_url=" + http.url() + "\n");

  const ProcessResult r = RunCli(
      {"--json", "lookup", "--batch", (home / "batch.txt").string(), "--jobs", "4", "--save"},
      home.path());
  EXPECT_EQ(r.exit_code, 3) << "the first failure is a disc without a match\n" << r.err;
  const nlohmann::json out = nlohmann::json::parse(r.out);
  ASSERT_EQ(out["discs"].size(), discs.size() + 2);
  EXPECT_FALSE(out["cancelled"]);
  const char* codes[] = {"0x00000000", "0x81110001", "0x8007000E", "0x81110002"};
  for (size_t i = 0; i < discs.size(); ++i) {
    const nlohmann::json& d = out["discs"][i];
    EXPECT_EQ(d["line"], i + 3);
    EXPECT_EQ(d["disc_id"], fmt::format("{:08x}", discs[i].toc.disc_id));
    EXPECT_EQ(d["result"], codes[static_cast<int>(discs[i].outcome)]) << i;
    if (discs[i].outcome == Outcome::kFound) {
      EXPECT_EQ(d["title"], fmt::format("Album {} of songs", i));
      EXPECT_EQ(d["album_id"].get<std::string>().size(), 16u);
    }
    if (discs[i].outcome == Outcome::kAmbiguous) {
      EXPECT_EQ(d["matches"].size(), 2u);
    }
  }
  EXPECT_EQ(out["discs"][100]["result"], "0x81110001") << "the cue sheet's disc is unknown";
  EXPECT_EQ(out["discs"][101]["result"], "0x80070057");
  EXPECT_NE(out["discs"][101]["message"].get<std::string>().find("expected"), std::string::npos);

  // Standard input, text output, a missing batch file.
  const ProcessResult text =
      RunCli({"lookup", "--batch", "-"}, home.path(), DiscLine(discs[0].toc));
  EXPECT_EQ(text.exit_code, 0) << text.err;
  EXPECT_EQ(text.out,
            fmt::format("1: {:08x} Artist 0 / Album 0 of songs [rock]\n", discs[0].toc.disc_id));
  const ProcessResult missing =
      RunCli({"lookup", "--batch", (home / "none.txt").string()}, home.path());
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("none.txt: No such file or directory"), std::string::npos)
      << missing.err;
}

// Ctrl-C in the middle of a batch: the discs done so far are printed, the rest
// are reported as cancelled, and the exit code is 5.
TEST(LookupBatchCliTest, InterruptCancelsAndReportsWhatWasDone) {
  TempDir home;
  auto db = std::make_shared<FakeFreedbDatabase>();
  const std::vector<BatchDiscCase> discs = MakeDiscs(*db);
  FakeFreedbHttpServer http{db};
  std::atomic<int> answered{0};
  http.SetOverride([&](const std::string&) -> std::optional<std::string> {
    ++answered;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return std::nullopt;
  });
  std::string batch;
  for (size_t i = 0; i < 20; ++i)
    batch += DiscLine(discs[i].toc);
  WriteFile(home / "batch.txt", batch);
  WriteFile(
      home / "config" / "dischive" / "dischive.ini",
      "[internet2]\npreconfig_http_proxy=0\nmin_interval_ms=0\nacquire_url=" + http.url() + "\n");

  std::vector<std::string> env = {"XDG_CONFIG_HOME=" + (home / "config").string(),
                                  "XDG_DATA_HOME=" + (home / "data").string(),
                                  "HOME=" + home.path().string()};
  for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
  }
  std::vector<std::string> args = {
      DISCHIVE_CLI_PATH, "lookup", "--batch", (home / "batch.txt").string(), "--jobs", "1"};
  std::vector<char*> argv, envp;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  for (std::string& e : env)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  const std::string out_path = (home / "out.txt").string(), err_path = (home / "err.txt").string();
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, out_path.c_str(), O_WRONLY | O_CREAT,
                                   0600);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, err_path.c_str(), O_WRONLY | O_CREAT,
                                   0600);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&files);

  // Interrupt once a few discs are through (at most 30 s of waiting).
  for (int i = 0; i < 3000 && answered < 6; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(::kill(pid, SIGINT), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 5);
  const std::string out = ReadFile(home / "out.txt");
  EXPECT_NE(ReadFile(home / "err.txt").find("cancelled after "), std::string::npos);
  EXPECT_NE(
      out.find(fmt::format("1: {:08x} Artist 0 / Album 0 of songs [rock]\n", discs[0].toc.disc_id)),
      std::string::npos)
      << out;
  EXPECT_NE(out.find(fmt::format("20: {:08x} Operation aborted.", discs[19].toc.disc_id)),
            std::string::npos)
      << out;
  EXPECT_LT(answered, 20);
}

}  // namespace
}  // namespace dischive::test
