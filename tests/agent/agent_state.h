// Helpers of the tests of the agent's machines: the process-wide state they
// share, put back as a fresh process has it, and the small builders of
// replies and completions those tests need.
//
// Test thread only.
#ifndef OVITA2_TESTS_AGENT_AGENT_STATE_H
#define OVITA2_TESTS_AGENT_AGENT_STATE_H

#include <cstdint>
#include <string>

#include "entry/ovita2_agent.h"
#include "jobs/job_container.h"
#include "jobs/update_jobs.h"
#include "naming/name_container.h"
#include "naming/update_aggregation.h"
#include "naming/update_task_queue.h"
#include "pipeline/execute_hp_jobs.h"
#include "pipeline/execute_jobs.h"
#include "pipeline/second_phase.h"
#include "pipeline/stats_queues.h"
#include "test_host.h"
#include "zelvar/long_action.h"
#include "zelvar/message_pool.h"
#include "zelvar/message_util.h"

namespace ovita2 {
namespace testing {

inline void ResetAgentState() {
  g_strTQName.clear();
  g_strTQIP.clear();
  g_iTQPort = 0;
  g_strAggrName.clear();
  g_strAggrIP.clear();
  g_iAggrPort = 0;
  g_need_updatejobs = false;
  g_highprecision_frequency = kDefaultHighPrecisionFrequency;
  UpdateJobsMachine::ResetSlowCounter();
  ExecuteJobsMachine::m_bRunning = false;
  ExecuteHpJobsMachine::m_bRunning = false;
  SecondPhaseMachine::isRunning = false;
  g_mapHpSecondInfo.clear();
  JobContainer::Instance()->Reset();
  g_vecUpper.clear();
  g_vecStringUpper.clear();
  g_vecSecondInfo.clear();
  NameContainer::Instance()->ClearNameValue("MASTER");
  NameContainer::Instance()->ClearNameValue("TELLAR2_ACCESS");
}

inline zelvar::kadri::NameNodeContent Address(const std::string& ip, int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(port);
  return content;
}

// The answer to `request`, addressed back to the machine that sent it.
inline zelvar::ZMessage ReplyTo(const zelvar::ZMessage& request, unsigned type) {
  zelvar::ZMessage reply;
  zelvar::MakeResponse(request, static_cast<int>(type), &reply);
  return reply;
}

// Sends `reply` to the agent from `peer` and runs the machine that gets it.
// True when the machine gave the envelope back to the pool.
inline bool SendAndRun(TestHost& host, TestPeer& peer, const zelvar::ZMessage& reply) {
  size_t before = zelvar::MessagePool::Instance()->Size();
  peer.Send(reply);
  host.RunPending();
  size_t released = before > 0 ? before : 1;  // the envelope came from the pool, or was new
  return zelvar::MessagePool::Instance()->Size() == released;
}

// A completion delivered to a machine whatever it started, for answers the
// host would not give twice (a stray or repeated flow number).
inline void DeliverCompletion(TestHost& host, uint32_t machineId, uint32_t flowNo, const std::string& output,
                              int64_t status = 0, const std::string& error = "") {
  auto* result = new zelvar::LongActionResult();
  result->output = output;
  result->error = error;
  result->status = status;
  result->flow_no = flowNo;
  auto drop = [](void* gone) { delete static_cast<zelvar::LongActionResult*>(gone); };
  zelvar::MachineEvent event;
  event.head.event_type = zelvar::kEventLongAction;
  event.head.flow_no = flowNo;
  event.data = result;
  event.drop = drop;
  event.after_dispatch = drop;
  host.Runtime().PostById(machineId, event);
  host.RunPending();
}

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_AGENT_AGENT_STATE_H
