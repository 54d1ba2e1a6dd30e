// The probe: a small plug-in that exercises the host the way the agent does
// (framing, routing by head, machines, long actions) and records what the
// host did to it in probe::Control.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "frame.h"
#include "probe_control.h"
#include "zelvar/host_interface.h"
#include "zelvar/long_action.h"
#include "zelvar/machine_factory.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message_util.h"
#include "zelvar/state_machine.h"

using zelvar::HostSlotAs;

namespace {

probe::Control g_control;
std::string g_strRecordFile;

template <typename Fn>
Fn HostFn(zelvar::HostSlot slot) {
  return HostSlotAs<Fn>(g_control.table, slot);
}

void Record(const std::string& call) {
  g_control.calls.push_back(call);
  if (g_strRecordFile.empty()) return;
  int fd = open(g_strRecordFile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string line = call + "\n";
  ssize_t written = write(fd, line.data(), line.size());
  (void)written;
  close(fd);
}

class ProbeMachine : public zelvar::StateMachine {
 public:
  ~ProbeMachine() override { g_control.ended.push_back(GetMachineId()); }
  unsigned StateMachineType() override { return probe::kProbeMachineType; }
  const char* MachineName() override { return "ProbeMachine"; }

  int Timeout(bool machineTimeout) override {
    probe::Seen seen;
    seen.machine_id = GetMachineId();
    seen.state = GetState();
    seen.timeout = true;
    seen.status = machineTimeout ? 1 : 0;
    g_control.seen.push_back(seen);
    return zelvar::kMachineDone;
  }

  int DoNext(zelvar::InternalHead_t* head, void* data) override {
    probe::Seen seen;
    seen.machine_id = GetMachineId();
    seen.state = GetState();
    seen.event_type = head->event_type;
    seen.flow_no = head->flow_no;
    int result = zelvar::kKeepMachine;
    switch (head->event_type) {
      case zelvar::kEventMessage: result = OnMessage(static_cast<zelvar::ZMessage*>(data), &seen); break;
      case zelvar::kEventLongAction: {
        auto* record = static_cast<zelvar::LongActionResult*>(data);
        seen.status = record->status;
        seen.output = record->output;
        seen.error = record->error;
        seen.flow_no = record->flow_no;
        break;
      }
      case zelvar::kEventAio: {
        auto* record = static_cast<zelvar::AioResult*>(data);
        seen.status = record->result;
        seen.error_number = record->error;
        seen.flow_no = record->flow_no;
        break;
      }
      case zelvar::kEventPlugin: {
        auto* text = static_cast<std::string*>(data);
        seen.session = *text;
        delete text;
        break;
      }
      case zelvar::kEventStart:
        // A machine started by the routine tick is done after its first run.
        if (IsCreatedByRoutine()) result = zelvar::kMachineDone;
        break;
      default: break;
    }
    g_control.seen.push_back(seen);
    SetState(1);
    return result;
  }

  uint64_t conn_a = 0;
  uint64_t conn_b = 0;

 private:
  int OnMessage(zelvar::ZMessage* message, probe::Seen* seen) {
    seen->session = message->head().session();
    seen->message_type = message->head().message_type();
    int result = seen->session == "done" ? zelvar::kMachineDone : zelvar::kKeepMachine;
    if (message->head().message_type() == probe::kProbeMachineType && message->head().kind() == zelvar::kKindRequest &&
        conn_b != 0) {
      zelvar::ZMessage reply;
      zelvar::MakeResponse(*message, probe::kProbeReplyType, &reply);
      reply.mutable_head()->set_session("echo:" + seen->session);
      bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(conn_a, conn_b);
      if (bev != nullptr) {
        std::string frame = probe::EncodeFrame(reply);
        bufferevent_write(bev, frame.data(), frame.size());
      }
      result = zelvar::kMachineDone;
    }
    HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message);
    return result;
  }
};

zelvar::StateMachine* CreateProbe() { return new ProbeMachine(); }

int ProbeHandler(zelvar::StateMachine*, zelvar::event_key_t, void*) { return zelvar::kKeepMachine; }

void RegisterMachines() {
  if (zelvar::MachineFactory::Instance()->HasType(probe::kProbeMachineType)) return;
  zelvar::MachineFactory::AddMachine(probe::kProbeMachineType, &CreateProbe);
  zelvar::StateMachine::SetGlobalStateList2(probe::kProbeMachineType, -1, &ProbeHandler);
  zelvar::StateMachine::SetGlobalStateList2(probe::kProbeMachineType, 1, &ProbeHandler);
}

}  // namespace

extern "C" {

void OnPeekInterface(zelvar::HostFunction* table) {
  g_control = probe::Control();
  std::memcpy(g_control.table, table, sizeof g_control.table);
  g_strRecordFile = HostFn<zelvar::GetConfigStringFn>(zelvar::kSlotGetConfigString)("probe", "record_file", nullptr);
  Record("OnPeekInterface");
}

int OnInit(void* context) {
  g_control.init_context = context != nullptr ? static_cast<const char*>(context) : "";
  Record("OnInit");
  RegisterMachines();
  auto getInt = HostFn<zelvar::GetConfigIntFn>(zelvar::kSlotGetConfigInt);
  int period = getInt("probe", "routine_period_us", 0);
  if (period > 0) HostFn<zelvar::SetRoutinePeriodFn>(zelvar::kSlotSetRoutinePeriod)(static_cast<unsigned>(period));
  g_control.routine_makes_machine = getInt("probe", "routine_machines", 0) != 0;
  return getInt("probe", "init_result", 0);
}

int OnConnect(uint64_t connA, uint64_t connB) {
  g_control.connects.emplace_back(connA, connB);
  Record("OnConnect");
  return 0;
}

int OnDisconnect(uint64_t connA, uint64_t connB) {
  g_control.disconnects.emplace_back(connA, connB);
  Record("OnDisconnect");
  return 0;
}

int OnDataIn(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut, zelvar::StateMachine** machineOut) {
  bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  if (bev == nullptr) return -1;
  evbuffer* input = bufferevent_get_input(bev);
  size_t available = evbuffer_get_length(input);
  if (available < 4) return 100;
  unsigned char prefix[4];
  evbuffer_copyout(input, prefix, 4);
  uint64_t length = (uint64_t{prefix[0]} << 24) | (uint64_t{prefix[1]} << 16) | (uint64_t{prefix[2]} << 8) | prefix[3];
  if (length + 4 > available) return 100;
  auto* message = HostFn<zelvar::AcquireMessageFn>(zelvar::kSlotAcquireMessage)(0);
  if (message == nullptr) message = new zelvar::ZMessage();
  message->Clear();
  const unsigned char* bytes = evbuffer_pullup(input, static_cast<ssize_t>(length + 4));
  bool parsed = message->ParseFromArray(bytes + 4, static_cast<int>(length));
  evbuffer_drain(input, length + 4);
  auto release = HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage);
  if (!parsed) {
    release(0, message);
    return -1;
  }
  const zelvar::Head& head = message->head();
  zelvar::StateMachine* machine = nullptr;
  if (head.kind() == zelvar::kKindResponse && head.dst_machine_id() != 0) {
    machine = zelvar::MachinePool::Instance()->GetMachine(head.dst_machine_id());
  } else {
    machine = HostFn<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(head.message_type());
    if (auto* probeMachine = dynamic_cast<ProbeMachine*>(machine)) {
      probeMachine->conn_a = connA;
      probeMachine->conn_b = connB;
    }
  }
  if (machine == nullptr) {
    release(0, message);
    return -1;
  }
  *messageOut = message;
  *machineOut = machine;
  return 0;
}

int OnRoutine(zelvar::StateMachine** machineOut) {
  ++g_control.routine_calls;
  Record("OnRoutine");
  if (g_control.routine_makes_machine) {
    auto* machine = new ProbeMachine();
    machine->SetCreatedByRoutine(true);
    *machineOut = machine;
  }
  return 0;
}

void* OnGetPluginHandle() { return &g_control; }

int OnIsReady() { return g_control.ready; }

void OnUnload() { Record("OnUnload"); }

}  // extern "C"
