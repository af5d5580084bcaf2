// Finding the removable or optical volume of a path in a mount table and a
// sysfs tree laid out the way the kernel and udev lay them out.
#include "platform/removable_media.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace dischive::platform {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::WriteFile;

TEST(RemovableMediaTest, ParsesMountInfoWithEscapes) {
  const auto entries = ParseMountInfo(
      "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw\n"
      "garbage\n"
      "95 22 8:17 / /media/me/MY\\040STICK rw,nosuid shared:50 - vfat /dev/sdb1 rw\n"
      "96 22 0:45 / /proc rw - proc proc rw\n");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].mount_point, "/media/me/MY STICK");
  EXPECT_EQ(entries[1].major, 8u);
  EXPECT_EQ(entries[1].minor, 17u);
  EXPECT_EQ(entries[1].source, "/dev/sdb1");
  EXPECT_EQ(entries[2].major, 0u);
}

TEST(RemovableMediaTest, FindsRemovableAndOpticalVolumes) {
  TempDir dir;
  MountSources sources;
  sources.mountinfo = dir / "mountinfo";
  sources.sys_dev_block = dir / "sys" / "dev" / "block";
  sources.labels = dir / "by-label";
  WriteFile(sources.mountinfo,
            "22 1 8:2 / / rw - ext4 /dev/sda2 rw\n"
            "95 22 8:17 / /media/me/MY\\040STICK rw - vfat /dev/sdb1 rw\n"
            "97 22 11:0 / /media/me/CD rw - iso9660 /dev/sr0 ro\n"
            "98 22 0:45 / /run/user rw - tmpfs tmpfs rw\n");
  const fs::path devices = dir / "sys" / "devices";
  WriteFile(devices / "sda" / "removable", "0\n");
  WriteFile(devices / "sda" / "sda2" / "partition", "2\n");
  WriteFile(devices / "sdb" / "removable", "1\n");
  WriteFile(devices / "sdb" / "sdb1" / "partition", "1\n");
  WriteFile(devices / "sr0" / "removable", "0\n");
  WriteFile(devices / "sr0" / "device" / "type", "5\n");
  fs::create_directories(sources.sys_dev_block);
  fs::create_directory_symlink("../../devices/sda/sda2", sources.sys_dev_block / "8:2");
  fs::create_directory_symlink("../../devices/sdb/sdb1", sources.sys_dev_block / "8:17");
  fs::create_directory_symlink("../../devices/sr0", sources.sys_dev_block / "11:0");
  fs::create_directories(sources.labels);
  fs::create_symlink("../../sdb1", sources.labels / "MY\\x20STICK");
  fs::create_symlink("../../sda2", sources.labels / "system");

  const auto stick = FindRemovableVolume("/media/me/MY STICK/Music/Album", sources);
  ASSERT_TRUE(stick);
  EXPECT_EQ(stick->mount_point, "/media/me/MY STICK");
  EXPECT_EQ(stick->label, "MY STICK");

  const auto cd = FindRemovableVolume("/media/me/CD/Disc", sources);
  ASSERT_TRUE(cd);
  EXPECT_EQ(cd->label, "") << "a volume without a label";

  EXPECT_FALSE(FindRemovableVolume("/home/me/Music", sources)) << "fixed disk";
  EXPECT_FALSE(FindRemovableVolume("/run/user/1000", sources)) << "no block device";
  EXPECT_FALSE(FindRemovableVolume("/media/me/MY STICKS/x", sources)) << "name prefix only";
  sources.mountinfo = dir / "missing";
  EXPECT_FALSE(FindRemovableVolume("/media/me/CD/Disc", sources));
}

}  // namespace
}  // namespace dischive::platform
