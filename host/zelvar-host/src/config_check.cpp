#include "config_check.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "config.h"
#include "host_settings.h"
#include "plugin.h"

namespace zelvar_host {
namespace {

struct SectionKeys {
  std::set<std::string> keys;
  bool any_key = false;
  bool read_by_host = false;
};

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// " (did you mean X?)" for the nearest of `known`, when it is near enough to
// be a typo of `name` rather than another word.
std::string Suggestion(const std::string& name, const std::set<std::string>& known, const char* open,
                       const char* close) {
  const std::string* nearest = nullptr;
  size_t best = std::max<size_t>(2, name.size() / 3) + 1;
  for (const std::string& candidate : known) {
    const size_t distance = EditDistance(name, candidate);
    if (distance < best) best = distance, nearest = &candidate;
  }
  return nearest == nullptr ? "" : " (did you mean " + std::string(open) + *nearest + close + "?)";
}

std::map<std::string, SectionKeys> KnownKeys(const std::vector<ComponentKeys>& components) {
  std::map<std::string, SectionKeys> known;
  for (const ComponentKeys& component : components) {
    for (auto* key = component.keys; key != nullptr && key->section != nullptr; ++key) {
      SectionKeys& section = known[key->section];
      if (key->key == nullptr) section.any_key = true; else section.keys.insert(key->key);
      section.read_by_host |= &component == &components.front();
    }
  }
  return known;
}

}  // namespace

CheckFindings CheckConfigKeys(const Config& config, const std::vector<ComponentKeys>& components) {
  CheckFindings found;
  const std::map<std::string, SectionKeys> known = KnownKeys(components);
  std::string undeclared;
  for (const ComponentKeys& component : components) {
    if (component.keys == nullptr) undeclared += (undeclared.empty() ? "" : ", ") + component.component;
    for (auto* key = component.keys; key != nullptr && key->section != nullptr; ++key) {
      if (key->required && key->key != nullptr && !config.Has(key->section, key->key)) {
        found.errors.push_back("[" + std::string(key->section) + "] has no " + key->key + ", which " +
                               component.component + " needs");
      }
    }
  }
  std::set<std::string> sectionNames;
  for (const auto& section : known) sectionNames.insert(section.first);
  for (const std::string& name : config.SectionNames()) {
    auto section = known.find(name);
    if (section == known.end() && !undeclared.empty()) {
      found.notes.push_back("[" + name + "] unknown, not checked: " + undeclared + " does not declare its keys");
    } else if (section == known.end()) {
      found.errors.push_back("[" + name + "] is not a section any component reads" +
                             Suggestion(name, sectionNames, "[", "]"));
    } else if (!section->second.any_key) {
      for (const auto& entry : config.Section(name)) {
        if (section->second.keys.count(entry.first) != 0) continue;
        found.errors.push_back("[" + name + "] " + entry.first + " is not read by " +
                               (section->second.read_by_host ? "the host or " : "") + "any plug-in" +
                               Suggestion(entry.first, section->second.keys, "", ""));
      }
    }
  }
  return found;
}

int CheckConfigFile(const std::string& path, FILE* out) {
  Config config;
  HostSettings settings;
  std::string error;
  if (!config.Load(path, &error) || !HostSettings::FromConfig(config, &settings, &error)) {
    std::fprintf(out, "%s\n", error.c_str());
    return 1;
  }
  std::vector<ComponentKeys> components{{"the host", HostSettings::kConfigKeys}};
  std::vector<std::unique_ptr<Plugin>> plugins;  // kept open: their tables live in them
  CheckFindings found;
  for (const auto& entry : settings.plugins) {
    plugins.push_back(std::make_unique<Plugin>(entry.first, entry.second));
    if (!plugins.back()->Load(&error)) {
      found.errors.push_back(error);
      continue;
    }
    plugins.back()->on_unload = nullptr;  // never given the host table nor started: nothing to undo
    auto describe = plugins.back()->on_describe_config;
    components.push_back({"plug-in \"" + entry.first + "\"", describe != nullptr ? describe() : nullptr});
  }
  CheckFindings keys = CheckConfigKeys(config, components);
  found.errors.insert(found.errors.end(), keys.errors.begin(), keys.errors.end());
  for (const std::string& line : found.errors) std::fprintf(out, "%s: %s\n", path.c_str(), line.c_str());
  for (const std::string& line : keys.notes) std::fprintf(out, "%s: note: %s\n", path.c_str(), line.c_str());
  if (found.errors.empty()) std::fprintf(out, "%s: OK\n", path.c_str());
  else std::fprintf(out, "%s: %zu problem(s)\n", path.c_str(), found.errors.size());
  return found.errors.empty() ? 0 : 1;
}

}  // namespace zelvar_host
