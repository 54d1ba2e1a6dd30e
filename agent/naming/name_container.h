// NameContainer: the agent's in-memory name service.
//
// A service is known under a short name ("MASTER", "TELLAR2_ACCESS"); the
// configuration binds each name to a registry path, and every child node under
// that path is one running instance, whose data is its address
// (zelvar::kadri::NameNodeContent). The container keeps three relations:
//   name -> path            one path per name, the first definition wins;
//   name -> child keys      in insertion order, duplicates allowed;
//   child key -> content    keyed by the child key alone: two names whose
//                           paths have a child of the same name share one
//                           entry, and the later write wins.
// Contents of vanished instances stay in the content table; they are only
// unreachable by name.
//
// One process-wide instance (Instance()), created on first use and destroyed
// at exit; tests may build their own. Event-loop thread only, no locks.
#ifndef OVITA2_AGENT_NAMING_NAME_CONTAINER_H
#define OVITA2_AGENT_NAMING_NAME_CONTAINER_H

#include <map>
#include <string>

#include "zelvar/kadri.pb.h"

class NameContainer {
 public:
  using Contents = std::map<std::string, zelvar::kadri::NameNodeContent>;
  using UpdateHook = void (*)();

  static NameContainer* Instance();

  NameContainer() = default;
  virtual ~NameContainer() = default;

  NameContainer(const NameContainer&) = delete;
  NameContainer& operator=(const NameContainer&) = delete;

  // Binds `name` to `path` unless the name is bound already; true when bound now.
  bool DefineName(const std::string& name, const std::string& path);
  const std::map<std::string, std::string>& Names() const { return m_mapNames; }

  // Adds an instance of `name` after its others and stores (or overwrites) the
  // content under `key`.
  void SetNameValue(const std::string& name, const std::string& key, const zelvar::kadri::NameNodeContent& content);
  // Forgets the instances of `name`; their contents stay stored.
  void ClearNameValue(const std::string& name);

  // The content under a child key, or null. The pointer survives later writes
  // to the same key (the entry is overwritten in place).
  const zelvar::kadri::NameNodeContent* GetNNCWithName(const std::string& key) const;
  // One instance of `name`, drawn with random(), or null when it has none.
  const zelvar::kadri::NameNodeContent* GetNameValue(const std::string& name) const;
  // Copies of all instances of `name`, by child key.
  Contents FindNameValues(const std::string& name) const;

  // Called, when set, after the instances of a name were refreshed. Nothing
  // in the agent sets it; it is there for a build that wants to react.
  UpdateHook GetUpdateHook() const { return m_fnUpdateHook; }
  void SetUpdateHook(UpdateHook hook) { m_fnUpdateHook = hook; }

 private:
  std::map<std::string, std::string> m_mapNames;
  std::multimap<std::string, std::string> m_mapNameValues;
  Contents m_mapContents;
  UpdateHook m_fnUpdateHook = nullptr;
};

#endif  // OVITA2_AGENT_NAMING_NAME_CONTAINER_H
