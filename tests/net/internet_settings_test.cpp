#include <gtest/gtest.h>

#include "dischive/http.h"
#include "dischive/version.h"

namespace dischive {
namespace {

TEST(InternetSettingsTest, KeysMapToAccessTypeAndProxy) {
  struct Case {
    const char* preconfig;  // nullptr: not set
    const char* use_proxy;
    const char* address;
    const char* port;
    AccessType access;
    const char* proxy;
  };
  const Case cases[] = {
      {nullptr, nullptr, nullptr, nullptr, AccessType::kPreconfigured, ""},
      {"1", "1", "proxy.lan", "8080", AccessType::kPreconfigured, ""},
      {"0", nullptr, "proxy.lan", nullptr, AccessType::kDirect, ""},
      {"0", "0", "proxy.lan", "8080", AccessType::kDirect, ""},
      {"0", "1", "", "8080", AccessType::kDirect, ""},
      {"0", "1", nullptr, nullptr, AccessType::kDirect, ""},
      {"0", "1", "proxy.lan", nullptr, AccessType::kNamedProxy, "proxy.lan"},
      {"0", "1", "proxy.lan", "80", AccessType::kNamedProxy, "proxy.lan"},
      {"0", "1", "proxy.lan", "8080", AccessType::kNamedProxy, "proxy.lan:8080"},
      {"0", "1", "proxy.lan", "0x1F90", AccessType::kNamedProxy, "proxy.lan:8080"},
      {"0", "1", "proxy.lan", "junk", AccessType::kNamedProxy, "proxy.lan"},
  };
  for (const Case& c : cases) {
    MemorySettingsStore store;
    const auto set = [&](const char* key, const char* value) {
      if (value != nullptr) store.Write("internet2", key, value);
    };
    set("preconfig_http_proxy", c.preconfig);
    set("use_http_proxy", c.use_proxy);
    set("http_proxy_address", c.address);
    set("http_proxy_port", c.port);

    const InternetSettings settings = LoadInternetSettings(store);
    EXPECT_EQ(settings.agent, AgentText());
    HttpRequest request;
    request.proxy = "stale";
    ApplyInternetSettings(settings, request);
    const std::string where = std::string(c.address ? c.address : "-") + ":" +
                              (c.port ? c.port : "-") + " use " + (c.use_proxy ? c.use_proxy : "-");
    EXPECT_EQ(request.access_type, c.access) << where;
    EXPECT_EQ(request.proxy, c.proxy) << where;
    EXPECT_EQ(request.agent, AgentText());
  }
}

TEST(InternetSettingsTest, RequestDeadlineIsBoundedSeconds) {
  const std::pair<const char*, int64_t> cases[] = {
      {nullptr, 120}, {"15", 15}, {"0", 120}, {"-5", 120}, {"junk", 120}, {"999999", 86400},
  };
  for (const auto& [value, seconds] : cases) {
    MemorySettingsStore store;
    if (value != nullptr) store.Write("internet2", "request_deadline", value);
    HttpRequest request;
    ApplyInternetSettings(LoadInternetSettings(store), request);
    EXPECT_EQ(request.deadline, std::chrono::seconds(seconds)) << (value ? value : "-");
  }
}

}  // namespace
}  // namespace dischive
