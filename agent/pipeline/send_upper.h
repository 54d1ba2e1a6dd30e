// SendUpperMachine: sends the queued numeric and text samples to the aggregation service, and empties the queues.
//
// Every tick sends at most two requests, each carrying the whole of one
// queue: 61030 (RecordStatsRequest) from g_vecUpper and 61032
// (RecordStringStatsRequest) from g_vecStringUpper, to g_strAggrIP:g_iAggrPort.
// The queues are emptied whether or not the send went out: samples are never
// kept for a later attempt, so an unreachable aggregation service loses one
// tick's samples instead of letting the queues grow. Replies are not awaited.
//
// One machine per routine run (every 10 s); the runtime owns it. Event-loop
// thread only, like the queues.
#ifndef OVITA2_AGENT_PIPELINE_SEND_UPPER_H
#define OVITA2_AGENT_PIPELINE_SEND_UPPER_H

#include <cstdint>

#include "framework/bev_machine_util.h"

class SendUpperMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000007;
  static constexpr unsigned kStatsRequestType = 61030;
  static constexpr unsigned kStringStatsRequestType = 61032;

  SendUpperMachine() = default;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "SendUpperMachine"; }

  // Sends what is queued; always ends the machine.
  int Entry_Init(zelvar::event_key_t key, void* data);

  // Send and empty g_vecUpper, g_vecStringUpper.
  void sendInt64Upper();
  void sendStringUpper();

 private:
  // Zeroed and kept for the layout the machine has always had; nothing reads it.
  [[maybe_unused]] uint32_t m_uReserved = 0;
};

#endif  // OVITA2_AGENT_PIPELINE_SEND_UPPER_H
