// UpdateNamesMachine: refreshes the instances of every service name the agent
// knows. One run walks the name table of NameContainer in key order and, one
// name at a time, lists the children of the name's registry path ("listvalue"),
// reads each child's address and replaces the name's instances with them.
//
// Started every 20 seconds by its routine; a run that outlives the interval
// overlaps the next one, each with its own cursor. What a run cannot learn
// (an error answer, an empty listing) leaves the name's known instances alone:
// a registry hiccup must not make the agent forget where its services are.
//
// Owned by the host's runtime; event-loop thread only.
#ifndef OVITA2_AGENT_NAMING_UPDATE_NAMES_H
#define OVITA2_AGENT_NAMING_UPDATE_NAMES_H

#include <map>
#include <string>

#include "framework/bev_machine_util.h"

namespace zelvar {
class ZKPluginResponse;
}

class UpdateNamesMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 55900;
  static constexpr unsigned kRoutineInterval = 20;
  static constexpr int kStateWaitInfo = 1;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "UpdateNamesMachine"; }

  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the ZKPluginResponse of the last "listvalue"; it is deleted here.
  int Entry_WaitInfo(zelvar::event_key_t key, void* data);

 private:
  // Asks for the children of the name under the cursor, or ends the run
  // after the last name.
  int RequestName();
  void StoreInstances(const zelvar::ZKPluginResponse& response);

  std::string m_strCurrentName;
  // The name table is complete before the first run and never changes, so
  // the cursor stays valid for the machine's life.
  std::map<std::string, std::string>::const_iterator m_itNextName;
};

// The creators the factory and the routine list hold.
zelvar::StateMachine* UpdateNamesCreateMySelf();
zelvar::StateMachine* UpdateNamesCreateMySelfByAddr(void* memory);
zelvar::StateMachine* UpdateNamesCreateMySelfForRoutine();

#endif  // OVITA2_AGENT_NAMING_UPDATE_NAMES_H
