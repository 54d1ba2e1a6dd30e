// The table of 44 host services that zelvar-host hands to every plug-in, and
// the entry points a plug-in exports.
//
// The table is an array of pointer-sized function slots; a plug-in copies it by
// value in OnPeekInterface and casts a slot to its signature at each use. Slots
// that no plug-in of this project calls still hold harmless functions, never
// null, so an older or newer plug-in that calls one does not crash the host.
//
//   slot  name                     signature
//   0     IsReady                  bool ()
//   1     Log                      void (int level, const char* format, ...)
//   4     GetLogLevel              int ()
//   6     GetLogFd                 int ()
//   7     SetRoutinePeriod         void (unsigned microseconds)
//   8     GetConfigInt             int (const char* section, const char* key, int dflt)
//   9     GetConfigString          const char* (const char* section, const char* key, const char* dflt)
//   12    ListConfigKeys           void (const char* section, const char* regex, std::vector<std::string>* out)
//   14    GetNow                   const int64_t* ()
//   17    GetConnectionBev         bufferevent* (uint64_t connA, uint64_t connB)
//   19    PostToMachine            int (ZMessage* message, StateMachine* target, unsigned id)
//   21    StartLongAction          int (LongActionMethod* action, unsigned machineId, unsigned flowNo)
//   22    StartAioRead             int (int fd, uint64_t size, char* buf, uint64_t offset, unsigned machineId, StateMachine*)
//   23    StartAioWrite            as StartAioRead
//   24    StartAioFDSync           int (int fd, unsigned machineId)
//   25    CreateMachineForMessage  StateMachine* (unsigned messageType)
//   27    AcquireMessage           ZMessage* (int)
//   28    ReleaseMessage           void (int, ZMessage*)
//   32    GetPluginHandle          void* (const char* pluginName)
//   34    ConnectTo                bufferevent* (const char* ip, unsigned short port, unsigned flag)
//   35    GetEventBase             event_base* ()         (host extension for plug-ins)
//   36    DeliverToMachine         int (unsigned machineId, void* record, void (*drop)(void*))
//                                                          (host extension for plug-ins)
#ifndef ZELVAR_HOST_INTERFACE_H
#define ZELVAR_HOST_INTERFACE_H

#include <cstdint>
#include <string>
#include <vector>

struct bufferevent;
struct event_base;

namespace zelvar {

class ZMessage;
class StateMachine;
class LongActionMethod;

constexpr int kHostSlotCount = 44;

using HostFunction = void (*)();

enum HostSlot : int {
  kSlotIsReady = 0,
  kSlotLog = 1,
  kSlotGetLogLevel = 4,
  kSlotGetLogFd = 6,
  kSlotSetRoutinePeriod = 7,
  kSlotGetConfigInt = 8,
  kSlotGetConfigString = 9,
  kSlotListConfigKeys = 12,
  kSlotGetNow = 14,
  kSlotGetConnectionBev = 17,
  kSlotPostToMachine = 19,
  kSlotStartLongAction = 21,
  kSlotStartAioRead = 22,
  kSlotStartAioWrite = 23,
  kSlotStartAioFDSync = 24,
  kSlotCreateMachineForMessage = 25,
  kSlotAcquireMessage = 27,
  kSlotReleaseMessage = 28,
  kSlotGetPluginHandle = 32,
  kSlotConnectTo = 34,
  kSlotGetEventBase = 35,
  kSlotDeliverToMachine = 36,
};

using IsReadyFn = bool (*)();
using LogFn = void (*)(int level, const char* format, ...);
using GetLogLevelFn = int (*)();
using GetLogFdFn = int (*)();
using SetRoutinePeriodFn = void (*)(unsigned microseconds);
using GetConfigIntFn = int (*)(const char* section, const char* key, int dflt);
using GetConfigStringFn = const char* (*)(const char* section, const char* key, const char* dflt);
using ListConfigKeysFn = void (*)(const char* section, const char* regex, std::vector<std::string>* out);
using GetNowFn = const int64_t* (*)();
using GetConnectionBevFn = bufferevent* (*)(uint64_t connA, uint64_t connB);
using PostToMachineFn = int (*)(ZMessage* message, StateMachine* target, unsigned id);
using StartLongActionFn = int (*)(LongActionMethod* action, unsigned machineId, unsigned flowNo);
using StartAioFn = int (*)(int fd, uint64_t size, char* buffer, uint64_t offset, unsigned machineId,
                           StateMachine* machine);
using StartAioFDSyncFn = int (*)(int fd, unsigned machineId);
using CreateMachineForMessageFn = StateMachine* (*)(unsigned messageType);
using AcquireMessageFn = ZMessage* (*)(int);
using ReleaseMessageFn = void (*)(int, ZMessage* message);
using GetPluginHandleFn = void* (*)(const char* pluginName);
using ConnectToFn = bufferevent* (*)(const char* ip, unsigned short port, unsigned flag);
using GetEventBaseFn = event_base* (*)();
// Delivers a plug-in's record to machine `machineId` as the payload of its next
// handler call, on a later loop turn; the handler owns it. When the machine is
// gone the host calls `drop(record)`. Returns 0, or -1 (record dropped) when
// no such machine lives.
using DeliverToMachineFn = int (*)(unsigned machineId, void* record, void (*drop)(void*));

// One configuration key a component reads, for `zelvar-host --check-config`.
// `key` null stands for every key of `section` (sections whose keys name
// things, such as the agent's [names]). `required` keys must be present
// whenever the component is loaded. A table ends with a null `section`.
struct ConfigKeyDeclaration {
  const char* section;
  const char* key;
  bool required;
};

// Reads a slot of a table as its signature.
template <typename Fn>
inline Fn HostSlotAs(const HostFunction* table, HostSlot slot) {
  return reinterpret_cast<Fn>(table[slot]);
}

}  // namespace zelvar

// Entry points of a plug-in, exported with C linkage.
//
// Every plug-in exports OnPeekInterface and OnInit; a plug-in that serves
// connections and machines (the agent, the control plane) exports the other
// five. A plug-in that others reach through GetPluginHandle (a registry)
// exports OnGetPluginHandle, and OnIsReady when it can be disconnected; the
// host finds it under the name its configuration key gives it. OnUnload, when
// exported, runs before the host closes the library. OnDescribeConfig, when
// exported, returns the plug-in's static table of the configuration keys it
// reads; the host calls it only to check a configuration, without OnInit.
extern "C" {
typedef void (*OnPeekInterfaceFn)(zelvar::HostFunction* table);
typedef int (*OnInitFn)(void* hostContext);
typedef int (*OnConnectFn)(uint64_t connA, uint64_t connB);
typedef int (*OnDisconnectFn)(uint64_t connA, uint64_t connB);
typedef int (*OnDataInFn)(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut,
                          zelvar::StateMachine** machineOut);
typedef int (*OnRoutineFn)(zelvar::StateMachine** machineOut);
typedef void* (*OnGetPluginHandleFn)();
typedef int (*OnIsReadyFn)();
typedef void (*OnUnloadFn)();
typedef const zelvar::ConfigKeyDeclaration* (*OnDescribeConfigFn)();
}

#endif  // ZELVAR_HOST_INTERFACE_H

