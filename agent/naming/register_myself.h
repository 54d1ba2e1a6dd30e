// RegisterMyselfMachine: publishes the agent in the name service. A run
// creates the agent's own ephemeral node ("common"/"myname") holding its
// listening address, then arms a watch on it. Started every 60 seconds by its
// routine; while the node is known to exist (m_bRegister) a run does nothing.
//
// The plug-in's connection callback (conn_callback_myself) and the node's
// watcher (myself_watcher_fn) clear m_bRegister when the node may be gone, so
// the next run creates it again. m_sLock lets one machine at a time register;
// only the owning machine's destructor releases it, whatever its outcome.
//
// Every failure ends the machine as failed (-1), its timeout included, so
// that a failed registration is visible as such in the host's records.
//
// Machines are owned by the host's runtime; the static members, the callback
// and the watcher are used on the event-loop thread only.
#ifndef OVITA2_AGENT_NAMING_REGISTER_MYSELF_H
#define OVITA2_AGENT_NAMING_REGISTER_MYSELF_H

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <string>

#include "framework/bev_machine_util.h"

class RegisterMyselfMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000000;
  static constexpr unsigned kRoutineInterval = 60;
  static constexpr int kStateRegisterMyNode = 1;
  static constexpr int kStateSetMyselfWatch = 2;

  struct RegisterLock {
    uint8_t locked;
    uint32_t owner;  // machine id of the holder
  };

  // True once the node was created and its watch armed.
  static bool m_bRegister;
  static RegisterLock m_sLock;

  ~RegisterMyselfMachine() override;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "RegisterMyselfMachine"; }
  int Timeout(bool machineTimeout) override;

  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the ZKPluginResponse of "create"; it is deleted here.
  int Entry_RegisterMyNode(zelvar::event_key_t key, void* data);
  // `data` is the ZKPluginResponse of "get"; it is deleted here.
  int Entry_SetMyselfWatch(zelvar::event_key_t key, void* data);

 private:
  int SetMyselfWatch();

  std::string m_strMyName;
};

// The registry plug-in calls this each time its connection is established:
// the session may be new, and the agent's ephemeral node gone with the old one.
void conn_callback_myself();
// The watcher armed on the agent's node.
void myself_watcher_fn(zhandle_t* zh, int type, int state, const char* path, void* context);

// The creators the factory and the routine list hold.
zelvar::StateMachine* RegisterMyselfCreateMySelf();
zelvar::StateMachine* RegisterMyselfCreateMySelfByAddr(void* memory);
zelvar::StateMachine* RegisterMyselfCreateMySelfForRoutine();

#endif  // OVITA2_AGENT_NAMING_REGISTER_MYSELF_H
