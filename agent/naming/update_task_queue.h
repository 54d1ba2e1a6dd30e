// UpdateTaskQueueMachine: asks a master instance which task queue serves this agent.
//
// The answer is kept in the three g_strTQ*/g_iTQPort globals, which the job,
// job-configuration and heartbeat machines read to reach the task queue; an
// empty g_strTQIP means no task queue is known yet. A task queue is identified
// by its name: a reply naming the current queue changes nothing, even when its
// address differs.
//
// One machine per routine run (every 10 s); the runtime owns it. Event-loop
// thread only, like the globals.
#ifndef OVITA2_AGENT_NAMING_UPDATE_TASK_QUEUE_H
#define OVITA2_AGENT_NAMING_UPDATE_TASK_QUEUE_H

#include <cstdint>
#include <string>

#include "framework/bev_machine_util.h"

extern std::string g_strTQName;
extern std::string g_strTQIP;
extern int32_t g_iTQPort;

class UpdateTaskQueueMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000002;
  static constexpr unsigned kRequestType = 67000;
  static constexpr int kWaitTaskQueue = 1;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "UpdateTaskQueueMachine"; }

  // Resolves "MASTER" and sends the request.
  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the reply envelope; released on every path.
  int Entry_WaitTaskQueue(zelvar::event_key_t key, void* data);
};

#endif  // OVITA2_AGENT_NAMING_UPDATE_TASK_QUEUE_H
