#include "zelvar/machine_runtime.h"

#include "zelvar/long_action.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message.pb.h"
#include "zelvar/message_pool.h"
#include "zelvar/string_util.h"

namespace zelvar {
namespace {

constexpr int64_t kMsPerSecond = 1000;

void DropPayload(const MachineEvent& event) {
  if (event.drop != nullptr && event.data != nullptr) event.drop(event.data);
}

}  // namespace

MachineEvent MessageEvent(ZMessage* message) {
  MachineEvent event;
  event.head.event_type = kEventMessage;
  event.head.flow_no = message->head().flow_no();
  event.head.src_machine_id = message->head().src_machine_id();
  event.data = message;
  event.drop = &MessagePool::ReleaseToInstance;
  return event;
}

// A completion record of `type`, freed by the runtime after the handler or
// when it cannot be delivered.
template <typename Record>
MachineEvent CompletionEvent(unsigned type, Record* record) {
  MachineEvent event;
  event.head.event_type = type;
  event.head.flow_no = record->flow_no;
  event.data = record;
  event.drop = event.after_dispatch = [](void* payload) { delete static_cast<Record*>(payload); };
  return event;
}

MachineEvent LongActionEvent(LongActionResult* record) { return CompletionEvent(kEventLongAction, record); }

MachineEvent AioEvent(AioResult* record) { return CompletionEvent(kEventAio, record); }

MachineEvent PluginEvent(void* record, PayloadFn drop) {
  MachineEvent event;
  event.head.event_type = kEventPlugin;
  event.data = record;
  event.drop = drop;
  return event;
}

MachineRuntime::MachineRuntime(const MachineClock* clock, unsigned defaultMachineTimeoutSec)
    : m_pClock(clock), m_uDefaultMachineTimeout(defaultMachineTimeoutSec) {}

MachineRuntime::~MachineRuntime() {
  for (const Queued& queued : m_dqEvents) DropPayload(queued.event);
  m_dqEvents.clear();
  // Deleting a machine may not post to another (no handler runs), so a plain
  // walk over a moved-out map is safe.
  auto machines = std::move(m_mapMachines);
  for (auto& entry : machines) delete entry.second.machine;
}

void MachineRuntime::Log(int level, const std::string& line) const {
  if (m_fnLog) m_fnLog(level, line);
}

MachineRuntime::Managed& MachineRuntime::Adopt(StateMachine* machine) {
  uint32_t id = machine->GetMachineId();
  auto it = m_mapMachines.find(id);
  if (it != m_mapMachines.end()) return it->second;
  Managed& managed = m_mapMachines.emplace(id, Managed{machine}).first->second;
  unsigned seconds = machine->GetMachineTimeout();
  ArmMachineTimer(managed, seconds != 0 ? seconds : m_uDefaultMachineTimeout);
  ArmStateTimer(managed);
  return managed;
}

void MachineRuntime::ArmMachineTimer(Managed& managed, unsigned seconds) {
  managed.machine_timer = 0;
  if (seconds == 0) return;
  managed.machine_timer = m_uNextGeneration++;
  m_qDeadlines.push({m_pClock->NowMs() + seconds * kMsPerSecond, managed.machine_timer,
                     managed.machine->GetMachineId(), true});
}

void MachineRuntime::ArmStateTimer(Managed& managed) {
  managed.state_timer = 0;
  unsigned seconds = managed.machine->GetStateTimeout();
  if (seconds == 0) return;
  managed.state_timer = m_uNextGeneration++;
  m_qDeadlines.push({m_pClock->NowMs() + seconds * kMsPerSecond, managed.state_timer,
                     managed.machine->GetMachineId(), false});
}

void MachineRuntime::Start(StateMachine* machine) {
  Adopt(machine);
  MachineEvent start;
  start.head.event_type = kEventStart;
  Dispatch(machine->GetMachineId(), start);
}

int MachineRuntime::Post(StateMachine* machine, const MachineEvent& event) {
  Adopt(machine);
  m_dqEvents.push_back({machine->GetMachineId(), event});
  if (m_fnWakeup) m_fnWakeup();
  return 0;
}

int MachineRuntime::PostById(uint32_t id, const MachineEvent& event) {
  auto it = m_mapMachines.find(id);
  if (it == m_mapMachines.end()) {
    StateMachine* machine = MachinePool::Instance()->GetMachine(id);
    if (machine == nullptr) {
      DropPayload(event);
      return -1;
    }
    return Post(machine, event);
  }
  return Post(it->second.machine, event);
}

size_t MachineRuntime::RunPending() {
  // Only what was queued before this call runs now; what the handlers post
  // waits for the next turn, so two machines that answer each other cannot
  // starve the loop.
  size_t count = m_dqEvents.size();
  for (size_t i = 0; i < count; ++i) {
    Queued queued = m_dqEvents.front();
    m_dqEvents.pop_front();
    if (m_mapMachines.count(queued.machine_id) == 0) {
      DropPayload(queued.event);
      continue;
    }
    Dispatch(queued.machine_id, queued.event);
  }
  return count;
}

void MachineRuntime::Dispatch(uint32_t id, const MachineEvent& event) {
  StateMachine* machine = m_mapMachines.at(id).machine;
  int stateBefore = machine->GetState();
  InternalHead_t head = event.head;
  int result = machine->DoNext(&head, event.data);
  if (event.after_dispatch != nullptr && event.data != nullptr) event.after_dispatch(event.data);
  AfterHandler(id, stateBefore, result);
}

void MachineRuntime::AfterHandler(uint32_t id, int stateBefore, int result) {
  auto it = m_mapMachines.find(id);
  if (it == m_mapMachines.end()) return;
  StateMachine* machine = it->second.machine;
  if (result == kKeepMachine) {
    if (machine->GetState() != stateBefore) ArmStateTimer(it->second);
    return;
  }
  if (result != kMachineDone && result != kMachineFailed) {
    Log(4, FormatString("machine:%s(%u)|state:%s|handler returned %d, ending the machine",
                        machine->MachineName(), id, machine->GetStateName(), result));
  } else if (result == kMachineFailed) {
    Log(3, FormatString("machine:%s(%u)|state:%s|ended as failed", machine->MachineName(), id,
                        machine->GetStateName()));
  }
  End(id);
}

void MachineRuntime::End(uint32_t id) {
  auto it = m_mapMachines.find(id);
  if (it == m_mapMachines.end()) return;
  StateMachine* machine = it->second.machine;
  m_mapMachines.erase(it);
  delete machine;
}

size_t MachineRuntime::FireTimeouts() {
  size_t fired = 0;
  int64_t now = m_pClock->NowMs();
  while (!m_qDeadlines.empty() && m_qDeadlines.top().at_ms <= now) {
    Deadline deadline = m_qDeadlines.top();
    m_qDeadlines.pop();
    if (!IsArmed(deadline)) continue;

    ++fired;
    StateMachine* machine = m_mapMachines.find(deadline.machine_id)->second.machine;
    int stateBefore = machine->GetState();
    int result = machine->Timeout(deadline.machine_timeout);
    if (result == kKeepMachine) {
      auto again = m_mapMachines.find(deadline.machine_id);
      if (again == m_mapMachines.end()) continue;
      if (deadline.machine_timeout) {
        unsigned seconds = machine->GetMachineTimeout();
        ArmMachineTimer(again->second, seconds != 0 ? seconds : m_uDefaultMachineTimeout);
      } else {
        ArmStateTimer(again->second);
      }
      continue;
    }
    AfterHandler(deadline.machine_id, stateBefore, result);
  }
  return fired;
}

bool MachineRuntime::IsArmed(const Deadline& deadline) const {
  auto it = m_mapMachines.find(deadline.machine_id);
  if (it == m_mapMachines.end()) return false;
  const Managed& managed = it->second;
  // A later arm supersedes this one.
  return (deadline.machine_timeout ? managed.machine_timer : managed.state_timer) == deadline.generation;
}

int64_t MachineRuntime::NextDeadlineMs() {
  // Nearly every routine machine ends long before its timeout, leaving its
  // deadline behind; waking for each of those was most of an idle host's work.
  while (!m_qDeadlines.empty() && !IsArmed(m_qDeadlines.top())) m_qDeadlines.pop();
  return m_qDeadlines.empty() ? -1 : m_qDeadlines.top().at_ms;
}

}  // namespace zelvar
