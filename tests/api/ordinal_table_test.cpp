#include "api/ordinal_table.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

namespace dischive::api {
namespace {

TEST(OrdinalTableTest, OrdinalsAndNamesAreUniqueAndEveryNameIsExported) {
  std::set<int> ordinals;
  std::set<std::string> names;
  void* library = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();
  for (const OrdinalEntry& entry : OrdinalTable()) {
    EXPECT_TRUE(ordinals.insert(entry.ordinal).second) << "duplicate ordinal " << entry.ordinal;
    EXPECT_TRUE(names.insert(entry.name).second) << "duplicate name " << entry.name;
    EXPECT_GT(entry.ordinal, 0);
    EXPECT_NE(::dlsym(library, entry.name), nullptr) << entry.name << " is not exported";
  }
  EXPECT_TRUE(names.count("NewRecordIdentifier"));
  // Nothing but the table is exported: an internal C++ symbol stays hidden.
  EXPECT_EQ(::dlsym(library, "_ZN8dischive19NewRandomIdentifierEv"), nullptr);
  ::dlclose(library);
}

}  // namespace
}  // namespace dischive::api
