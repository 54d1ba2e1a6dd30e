// UpdateAggregationMachine: asks the statistics access service which aggregation instance serves this agent.
//
// The answer is kept in the g_strAggr*/g_iAggrPort globals, which the upward
// sender sends to. Every successful reply is stored as it comes, empty fields
// included: the access service is the authority, and an empty address is how
// it withdraws an instance. A reply of another type, or without its body,
// means the conversation is broken and stops the process.
//
// One machine per routine run (every 10 s); the runtime owns it. Event-loop
// thread only, like the globals.
#ifndef OVITA2_AGENT_NAMING_UPDATE_AGGREGATION_H
#define OVITA2_AGENT_NAMING_UPDATE_AGGREGATION_H

#include <cstdint>
#include <string>

#include "framework/bev_machine_util.h"

extern std::string g_strAggrName;
extern std::string g_strAggrIP;
extern int32_t g_iAggrPort;

class UpdateAggregationMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000006;
  static constexpr unsigned kRequestType = 66000;
  static constexpr int kWaitAggregation = 1;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "UpdateAggregationMachine"; }

  // Builds the request, resolves "TELLAR2_ACCESS" and sends.
  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the reply envelope; released on every path that returns.
  int Entry_WaitAggregation(zelvar::event_key_t key, void* data);
};

#endif  // OVITA2_AGENT_NAMING_UPDATE_AGGREGATION_H
