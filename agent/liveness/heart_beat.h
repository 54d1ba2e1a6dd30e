// HeartBeatMachine: tells the task queue once a minute that this agent is
// alive, under which name, with which version and for how many monitored
// objects it holds jobs.
//
// The same report drives job refreshing: an agent holding no jobs raises
// g_need_updatejobs so the next job-update run fetches the list, and one
// holding jobs lowers it so the list is fetched only on the slow count.
// Until the task queue is known nothing is sent and the flag is left alone.
//
// The request envelope is kept for the life of the process and its head is
// filled on the first heartbeat only, deliberately: every later heartbeat goes
// out with the same flow number, session and machine id, and only the body is
// new. No answer is awaited, so nothing has to tell the heartbeats apart.
//
// Event-loop thread only.
#ifndef OVITA2_AGENT_LIVENESS_HEART_BEAT_H
#define OVITA2_AGENT_LIVENESS_HEART_BEAT_H

#include "framework/bev_machine_util.h"

class HeartBeatMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000015;
  static constexpr unsigned kRequestType = 66015;
  static constexpr const char* kAgentVersion = "1.0.13";

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "HeartBeatMachine"; }

  int Entry_Init(zelvar::event_key_t key, void* data);
};

#endif  // OVITA2_AGENT_LIVENESS_HEART_BEAT_H
