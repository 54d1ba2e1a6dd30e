// RealTimeCollectMachine: runs the enabled items' scripts and forwards their lines.
#include "liveness/real_time_collect.h"

#include <cassert>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "liveness/enable_real_time.h"
#include "naming/name_container.h"
#include "zelvar/long_action.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

bool RealTimeCollectMachine::m_rtRunning = false;

OVITA2_MACHINE_CREATORS(RealTimeCollect)
OVITA2_MACHINE_STATE(RealTimeCollect, Init)
OVITA2_MACHINE_STATE(RealTimeCollect, WaitRealTimeJobs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(RealTimeCollectMachine::kType, RealTimeCollectCreateMySelf,
                                RealTimeCollectCreateMySelfByAddr)
        .Routine(RealTimeCollectCreateMySelfForRoutine, kRoutineRealTimeCollect, 10)
        .State(-1, RealTimeCollectMachineEntry_Init, "Entry_Init")
        .State(RealTimeCollectMachine::kWaitRealTimeJobs, RealTimeCollectMachineEntry_WaitRealTimeJobs,
               "Entry_WaitRealTimeJobs");

int RealTimeCollectMachine::Timeout(bool machineTimeout) {
  m_rtRunning = false;
  return BEVMachineUtil::Timeout(machineTimeout);
}

int RealTimeCollectMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (m_rtRunning) return zelvar::kMachineDone;
  m_rtRunning = true;
  ExpireEnablements();
  if (g_mapRealtimeConf.empty()) {
    m_rtRunning = false;
    return zelvar::kMachineDone;
  }
  StartScripts();
  SetState(kWaitRealTimeJobs);
  return zelvar::kKeepMachine;
}

void RealTimeCollectMachine::ExpireEnablements() {
  const auto now = static_cast<uint32_t>(std::time(nullptr));
  for (auto item = g_mapRealtimeConf.begin(); item != g_mapRealtimeConf.end();) {
    item = static_cast<uint32_t>(now - item->second) >= kExpirySec ? g_mapRealtimeConf.erase(item) : std::next(item);
  }
}

void RealTimeCollectMachine::StartScripts() {
  for (const auto& enabled : g_mapRealtimeConf) {
    char path[256];  // a longer path is cut; item ids cannot make one
    std::snprintf(path, sizeof(path), kScriptPath, enabled.first);
    zelvar::ExecuteShell2 action(zelvar::ExecuteShell2::kName);
    action.Param(zelvar::ExecuteShell2::kCommandParam, path);
    m_mapFlowItems[SendLongAction(&action)] = enabled.first;
  }
}

int RealTimeCollectMachine::Entry_WaitRealTimeJobs(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::LongActionResult*>(data);
  assert(pMessage);
  if (pMessage->status != 0) {
    ovita2::MachineLog(4, this, "long action stderr: %lld, %s", static_cast<long long>(pMessage->status),
                       pMessage->error.c_str());
  } else {
    ovita2::MachineLog(1, this, "get longaction response:%s", pMessage->output.c_str());
    SendLines(pMessage->output);
  }
  m_mapFlowItems.erase(pMessage->flow_no);
  if (!m_mapFlowItems.empty()) return zelvar::kKeepMachine;
  m_rtRunning = false;
  return zelvar::kMachineDone;
}

void RealTimeCollectMachine::SendLines(const std::string& output) {
  const zelvar::kadri::NameNodeContent* access = NameContainer::Instance()->GetNameValue("TELLAR2_ACCESS");
  if (access == nullptr) {
    ovita2::MachineLog(4, this, "%s", "there is no valid TELLAR2_ACCESS");
    return;
  }
  for (size_t start = 0, end; (end = output.find('\n', start)) != std::string::npos; start = end + 1) {
    zelvar::ZMessage request;
    NewRequest(&request, kRequestType);
    request.mutable_body()->MutableExtension(zelvar::ovita2::send_real_time_buff_request)->set_line(
        output.substr(start, end - start));
    SendRequest(request, access->ip().c_str(), static_cast<unsigned>(access->port()), 0);
  }
}
