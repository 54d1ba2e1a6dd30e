// EnableRealTimeMachine: turns an item's real-time monitoring on or off.
#include "liveness/enable_real_time.h"

#include <cassert>
#include <ctime>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "zelvar/message_util.h"

std::map<uint32_t, uint32_t> g_mapRealtimeConf;

OVITA2_MACHINE_CREATORS(EnableRealTime)
OVITA2_MACHINE_STATE(EnableRealTime, Init)

// No routine: a machine is made only for an inbound request.
static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(EnableRealTimeMachine::kType, EnableRealTimeCreateMySelf,
                                EnableRealTimeCreateMySelfByAddr)
        .State(-1, EnableRealTimeMachineEntry_Init, "Entry_Init");

int EnableRealTimeMachine::Entry_Init(zelvar::event_key_t, void* data) {
  auto* request = static_cast<zelvar::ZMessage*>(data);
  assert(request);
  const auto& asked = request->body().GetExtension(zelvar::ovita2::enable_real_time_monitor_request);

  zelvar::MakeResponse(*request, kResponseType, &m_sResponse);
  m_pResponseBody = m_sResponse.mutable_body()->MutableExtension(zelvar::ovita2::enable_real_time_monitor_response);
  if (Apply(asked)) {
    m_pResponseBody->mutable_rc()->set_code(0);
  } else {
    m_pResponseBody->mutable_rc()->set_code(kNotEnabledCode);
    m_pResponseBody->mutable_rc()->set_msg(kNotEnabledText);
  }
  SendResponse(m_sResponse);  // a failed answer is not retried; the change stands
  ovita2::HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, request);
  return zelvar::kMachineDone;
}

bool EnableRealTimeMachine::Apply(const zelvar::ovita2::EnableRealTimeMonitorRequest& request) {
  switch (request.operation()) {
    case kEnable:
      g_mapRealtimeConf[request.item_id()] = static_cast<uint32_t>(std::time(nullptr));
      return true;
    case kDisable:
      return g_mapRealtimeConf.erase(request.item_id()) == 1;
    default:
      return true;
  }
}
