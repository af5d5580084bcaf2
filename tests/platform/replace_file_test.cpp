#include "platform/replace_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/temp_dir.h"

namespace dischive::platform {
namespace {

namespace fs = std::filesystem;
using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// What the sync seam saw: the kind of each descriptor flushed.
std::vector<mode_t> g_synced;
int g_sync_error = 0;

int RecordSync(int fd) {
  struct stat st {};
  ::fstat(fd, &st);
  g_synced.push_back(st.st_mode & S_IFMT);
  if (g_sync_error != 0) {
    errno = g_sync_error;
    return -1;
  }
  return ::fsync(fd);
}

class ReplaceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_synced.clear();
    g_sync_error = 0;
    SetSyncCallForTesting(RecordSync);
  }
  void TearDown() override { SetSyncCallForTesting(nullptr); }

  // The names in the folder, to see that no temporary file stays behind.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir.path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir;
};

TEST_F(ReplaceFileTest, ReplacesAFileKeepingItsModeAndFlushesFileThenFolder) {
  const fs::path target = dir / "settings.ini";
  WriteFile(target, "old contents, longer than the new ones\n");
  ::chmod(target.c_str(), 0600);
  std::string error;
  ASSERT_EQ(ReplaceFile(target, "new\n", &error), kOk) << error;
  EXPECT_EQ(ReadFile(target), "new\n");
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(g_synced, (std::vector<mode_t>{S_IFREG, S_IFDIR}));
  EXPECT_EQ(Names(), std::vector<std::string>{"settings.ini"});

  // A new file; its folder is not made.
  ASSERT_EQ(ReplaceFile(dir / "a.jpg", "jpeg", &error), kOk) << error;
  EXPECT_EQ(ReadFile(dir / "a.jpg"), "jpeg");
  EXPECT_NE(ReplaceFile(dir / "covers" / "b.jpg", "jpeg", &error), kOk);
  EXPECT_EQ(error, (dir / "covers").string() + ": No such file or directory");
}

TEST_F(ReplaceFileTest, FollowsLinksToTheFileTheyName) {
  WriteFile(dir / "real.xml", "old");
  fs::create_symlink("real.xml", dir / "link.xml");
  fs::create_symlink("link.xml", dir / "link2.xml");
  fs::create_symlink("missing.xml", dir / "dangling.xml");
  ASSERT_EQ(ReplaceFile(dir / "link2.xml", "new"), kOk);
  ASSERT_EQ(ReplaceFile(dir / "dangling.xml", "made"), kOk);
  EXPECT_TRUE(fs::is_symlink(dir / "link.xml"));
  EXPECT_TRUE(fs::is_symlink(dir / "link2.xml"));
  EXPECT_TRUE(fs::is_symlink(dir / "dangling.xml"));
  EXPECT_EQ(ReadFile(dir / "real.xml"), "new");
  EXPECT_EQ(ReadFile(dir / "missing.xml"), "made");

  fs::create_symlink("loop", dir / "loop");
  std::string error;
  EXPECT_NE(ReplaceFile(dir / "loop", "x", &error), kOk);
  EXPECT_NE(error.find("Too many levels of symbolic links"), std::string::npos) << error;
}

TEST_F(ReplaceFileTest, WritesThroughDevicesAndFifosWithoutReplacingThem) {
  std::string error;
  ASSERT_EQ(ReplaceFile("/dev/null", "discarded", &error), kOk) << error;
  EXPECT_TRUE(fs::is_character_file("/dev/null"));

  const fs::path fifo = dir / "pipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // Nobody reads: a clear failure at once, not a wait.
  EXPECT_NE(ReplaceFile(fifo, "lost", &error), kOk);
  EXPECT_EQ(error, fifo.string() + ": no process is reading this pipe");

  const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  ASSERT_EQ(ReplaceFile(fifo, "through the pipe", &error), kOk) << error;
  char buffer[64] = {};
  const ssize_t got = ::read(reader, buffer, sizeof buffer);
  ::close(reader);
  EXPECT_EQ(std::string(buffer, got > 0 ? static_cast<size_t>(got) : 0), "through the pipe");
  EXPECT_TRUE(fs::is_fifo(fifo));
  EXPECT_EQ(Names(), std::vector<std::string>{"pipe"});
  EXPECT_TRUE(g_synced.empty());  // nothing renamed, nothing to flush
}

TEST_F(ReplaceFileTest, RefusesFoldersAndSockets) {
  fs::create_directory(dir / "folder");
  const fs::path socket_path = dir / "sock";
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  const std::pair<fs::path, std::string> cases[] = {
      {dir / "folder", ": Is a directory"},
      {socket_path, ": not a regular file, not replaced"},
  };
  for (const auto& [path, reason] : cases) {
    std::string error;
    EXPECT_NE(ReplaceFile(path, "x", &error), kOk) << path;
    EXPECT_EQ(error, path.string() + reason);
  }
  ::close(sock);
  EXPECT_TRUE(fs::is_directory(dir / "folder"));
  EXPECT_TRUE(fs::is_socket(socket_path));
  EXPECT_EQ(Names(), (std::vector<std::string>{"folder", "sock"}));
}

TEST_F(ReplaceFileTest, FailureOrDiscardLeavesTheTargetAndNoTemporaryFile) {
  const fs::path target = dir / "collection.xml";
  WriteFile(target, "old");

  g_sync_error = EIO;
  std::string error;
  EXPECT_NE(ReplaceFile(target, "new", &error), kOk);
  EXPECT_EQ(error, target.string() + ": Input/output error");
  EXPECT_EQ(ReadFile(target), "old");
  EXPECT_EQ(Names(), std::vector<std::string>{"collection.xml"});

  g_sync_error = 0;
  {
    FileReplacement replacement;
    ASSERT_EQ(FileReplacement::Begin(target, &replacement), kOk);
    ASSERT_EQ(replacement.Write("half"), kOk);
    EXPECT_EQ(Names().size(), 2u);  // the temporary file beside the target
  }                                 // destroyed without Commit
  EXPECT_EQ(ReadFile(target), "old");
  EXPECT_EQ(Names(), std::vector<std::string>{"collection.xml"});
}

}  // namespace
}  // namespace dischive::platform
