// UpdateAggregationMachine: asks the statistics access service which aggregation instance serves this agent.
#include "naming/update_aggregation.h"

#include <cassert>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "naming/name_container.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

using ovita2::HostFn;

std::string g_strAggrName;
std::string g_strAggrIP;
int32_t g_iAggrPort = 0;

OVITA2_MACHINE_CREATORS(UpdateAggregation)
OVITA2_MACHINE_STATE(UpdateAggregation, Init)
OVITA2_MACHINE_STATE(UpdateAggregation, WaitAggregation)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(UpdateAggregationMachine::kType, UpdateAggregationCreateMySelf,
                                UpdateAggregationCreateMySelfByAddr)
        .Routine(UpdateAggregationCreateMySelfForRoutine, kRoutineUpdateAggregation, 10)
        .State(-1, UpdateAggregationMachineEntry_Init, "Entry_Init")
        .State(UpdateAggregationMachine::kWaitAggregation, UpdateAggregationMachineEntry_WaitAggregation,
               "Entry_WaitAggregation");

int UpdateAggregationMachine::Entry_Init(zelvar::event_key_t, void*) {
  zelvar::ZMessage request;
  NewRequest(&request, kRequestType);
  request.mutable_body()->MutableExtension(zelvar::ovita2::get_aggregation_request)->set_node_path(
      ovita2::HostConfigString("common", "myname"));

  const zelvar::kadri::NameNodeContent* access = NameContainer::Instance()->GetNameValue("TELLAR2_ACCESS");
  if (access == nullptr) {
    ovita2::MachineLog(4, this, "%s", "can't find the access");
    return zelvar::kMachineDone;
  }
  SendRequest(request, access->ip().c_str(), static_cast<unsigned>(access->port()), 0);
  SetState(kWaitAggregation);
  return zelvar::kKeepMachine;
}

int UpdateAggregationMachine::Entry_WaitAggregation(zelvar::event_key_t, void* data) {
  auto* rsp = static_cast<zelvar::ZMessage*>(data);
  assert(rsp->head().message_type() == ::zelvar::ovita2::GET_AGGREGATION_RESPONSE);
  assert(rsp->body().HasExtension(::zelvar::ovita2::get_aggregation_response));
  // Written before the result is read, so a failed reply shows both lines.
  ovita2::HostLog(1, "%s", "ok,update_aggregation response");

  const zelvar::ovita2::GetAggregationResponse& response =
      rsp->body().GetExtension(zelvar::ovita2::get_aggregation_response);
  if (response.rc().code() == 0) {
    g_strAggrName = response.name();
    g_strAggrIP = response.ip();
    g_iAggrPort = response.port();
  } else {
    ovita2::MachineLog(4, this, "%s", "update_aggregation failed");
  }
  HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, rsp);
  return zelvar::kMachineDone;
}
