// dischive config get|set|unset|list|path: the settings store.
#include <iostream>

#include "cli.h"

namespace dischive::cli {
namespace {

// Splits "group.key" at its first dot.
std::pair<std::string, std::string> SplitName(const std::string& name) {
  const size_t dot = name.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) {
    throw CommandError(kExitUsage, "expected GROUP.KEY, got \"" + name + "\"");
  }
  return {name.substr(0, dot), name.substr(dot + 1)};
}

void Setup(CLI::App& app, Context& context) {
  CLI::App* config = app.add_subcommand("config", "Read and change settings");
  config->require_subcommand(1);

  static std::string name, value, group;

  CLI::App* get = config->add_subcommand("get", "Print one setting");
  get->add_option("name", name, "GROUP.KEY")->required();
  get->callback([&context] {
    context.action = [&context] {
      const auto [g, k] = SplitName(name);
      const std::optional<std::string> v = context.settings->Read(g, k);
      if (context.json) {
        PrintJson(Json{{"group", g}, {"key", k}, {"value", v ? Json(*v) : Json(nullptr)}});
      } else if (v) {
        std::cout << *v << '\n';
      }
      if (!v) {
        if (!context.json) std::cerr << "dischive: " << name << " is not set\n";
        return static_cast<int>(kExitFailure);
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* set = config->add_subcommand("set", "Store one setting");
  set->add_option("name", name, "GROUP.KEY")->required();
  set->add_option("value", value, "VALUE")->required();
  set->callback([&context] {
    context.action = [&context] {
      const auto [g, k] = SplitName(name);
      if (!context.settings->Write(g, k, value)) {
        throw CommandError(kExitFailure, "cannot store " + name);
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* unset = config->add_subcommand("unset", "Remove one setting");
  unset->add_option("name", name, "GROUP.KEY")->required();
  unset->callback([&context] {
    context.action = [&context] {
      const auto [g, k] = SplitName(name);
      if (!context.settings->Remove(g, k)) {
        std::cerr << "dischive: " << name << " was not set\n";
        return static_cast<int>(kExitFailure);
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* list = config->add_subcommand("list", "Print all settings, or those of one group");
  list->add_option("group", group, "GROUP");
  list->callback([&context] {
    context.action = [&context] {
      std::vector<std::string> groups =
          group.empty() ? context.settings->Groups() : std::vector<std::string>{group};
      Json all = Json::object();
      for (const std::string& g : groups) {
        for (const auto& [k, v] : context.settings->Entries(g)) {
          if (context.json) {
            all[g][k] = v;
          } else {
            std::cout << g << '.' << k << '=' << v << '\n';
          }
        }
      }
      if (context.json) PrintJson(all);
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* path = config->add_subcommand("path", "Print the settings file's location");
  path->callback([&context] {
    context.action = [&context] {
      const std::string p =
          context.config_path.empty() ? DefaultSettingsPath().string() : context.config_path;
      if (context.json) {
        PrintJson(Json{{"path", p}, {"system_path", SystemSettingsPath().string()}});
      } else {
        std::cout << p << '\n';
      }
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("config", &Setup);

}  // namespace
}  // namespace dischive::cli
