#include "naming/name_container.h"

#include <cstdlib>
#include <vector>

NameContainer* NameContainer::Instance() {
  static NameContainer container;
  return &container;
}

bool NameContainer::DefineName(const std::string& name, const std::string& path) {
  return m_mapNames.emplace(name, path).second;
}

void NameContainer::SetNameValue(const std::string& name, const std::string& key,
                                 const zelvar::kadri::NameNodeContent& content) {
  // A multimap inserts after the equal keys, so a name's instances keep the
  // order they were added in.
  m_mapNameValues.emplace(name, key);
  // Assigning into the existing entry keeps pointers from GetNNCWithName valid.
  m_mapContents[key].CopyFrom(content);
}

void NameContainer::ClearNameValue(const std::string& name) { m_mapNameValues.erase(name); }

const zelvar::kadri::NameNodeContent* NameContainer::GetNNCWithName(const std::string& key) const {
  auto it = m_mapContents.find(key);
  return it == m_mapContents.end() ? nullptr : &it->second;
}

const zelvar::kadri::NameNodeContent* NameContainer::GetNameValue(const std::string& name) const {
  std::vector<const std::string*> keys;
  auto range = m_mapNameValues.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) keys.push_back(&it->second);
  if (keys.empty()) return nullptr;
  uint64_t draw = static_cast<uint64_t>(random());
  return GetNNCWithName(*keys[draw % keys.size()]);
}

NameContainer::Contents NameContainer::FindNameValues(const std::string& name) const {
  Contents found;
  auto range = m_mapNameValues.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) {
    const zelvar::kadri::NameNodeContent* content = GetNNCWithName(it->second);
    // Every writer stores the content together with the index entry.
    if (content != nullptr) found[it->second].CopyFrom(*content);
  }
  return found;
}
