// EnableRealTimeMachine: switches real-time monitoring of one monitored item
// on or off at a remote party's request (66012), and answers at once (66013).
//
// g_mapRealtimeConf holds the enabled items with the time (system clock) they
// were last enabled. Enabling again refreshes that time: RealTimeCollectMachine
// drops an item not refreshed for more than 300 s, so a caller that wants an
// item watched keeps enabling it. Disabling an item that is not enabled is the
// one refusal (kNotEnabledCode); an unknown operation changes nothing and is
// answered as a success.
//
// One machine per request, created by OnDataIn for the request's type; it
// ends in its first call. The table lives for the process and is not saved.
// Event-loop thread only, like the table.
#ifndef OVITA2_AGENT_LIVENESS_ENABLE_REAL_TIME_H
#define OVITA2_AGENT_LIVENESS_ENABLE_REAL_TIME_H

#include <cstdint>
#include <map>

#include "framework/bev_machine_util.h"
#include "zelvar/ovita2.pb.h"

// Item id -> when it was last enabled, seconds since the epoch cut to 32 bits.
extern std::map<uint32_t, uint32_t> g_mapRealtimeConf;

class EnableRealTimeMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 66012;
  static constexpr int kResponseType = 66013;
  static constexpr uint32_t kEnable = 0;
  static constexpr uint32_t kDisable = 1;
  static constexpr int32_t kNotEnabledCode = -64190;
  static constexpr const char* kNotEnabledText = "the item has not been set real_time_monitor";

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "EnableRealTimeMachine"; }

  // `data` is the request envelope; it goes back to the host here.
  int Entry_Init(zelvar::event_key_t key, void* data);

 private:
  // Applies the request to the table; false when it is refused.
  bool Apply(const zelvar::ovita2::EnableRealTimeMonitorRequest& request);

  zelvar::ZMessage m_sResponse;
  zelvar::ovita2::EnableRealTimeMonitorResponse* m_pResponseBody = nullptr;
};

#endif  // OVITA2_AGENT_LIVENESS_ENABLE_REAL_TIME_H
