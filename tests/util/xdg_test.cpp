#include "util/xdg.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ScopedEnv;

TEST(XdgTest, VariableThenHomeDefault) {
  struct Case {
    XdgHome kind;
    const char* variable;
    const char* value;  // of the variable; HOME is /home/u
    const char* want;
  };
  const Case cases[] = {
      {XdgHome::kConfig, "XDG_CONFIG_HOME", "/etc/u", "/etc/u/dischive"},
      {XdgHome::kConfig, "XDG_CONFIG_HOME", "", "/home/u/.config/dischive"},
      {XdgHome::kCache, "XDG_CACHE_HOME", "/var/cache/u", "/var/cache/u/dischive"},
      {XdgHome::kCache, "XDG_CACHE_HOME", "relative/cache", "/home/u/.cache/dischive"},
      {XdgHome::kData, "XDG_DATA_HOME", "/srv/u", "/srv/u/dischive"},
      {XdgHome::kData, "XDG_DATA_HOME", "", "/home/u/.local/share/dischive"},
  };
  const ScopedEnv home("HOME", "/home/u");
  for (const Case& c : cases) {
    const ScopedEnv variable(c.variable, c.value);
    EXPECT_EQ(UserFolder(c.kind), c.want) << c.variable << "=" << c.value;
  }
}

TEST(XdgTest, NoUsableHomeFallsBackToTheTemporaryFolder) {
  const ScopedEnv home("HOME", "not/absolute");
  const ScopedEnv data("XDG_DATA_HOME", "");
  const ScopedEnv tmp("TMPDIR", "/var/tmp");
  EXPECT_EQ(UserFolder(XdgHome::kData), "/var/tmp/dischive");
}

TEST(XdgTest, SystemConfigIsTheFirstListedFolder) {
  {
    const ScopedEnv dirs("XDG_CONFIG_DIRS", "/opt/xdg:/etc/xdg");
    EXPECT_EQ(SystemConfigFolder(), "/opt/xdg/dischive");
  }
  const ScopedEnv dirs("XDG_CONFIG_DIRS", "");
  EXPECT_EQ(SystemConfigFolder(), "/etc/xdg/dischive");
}

}  // namespace
}  // namespace dischive
