// The probe: a small plug-in that uses the host the way the agent does (frames,
// routing by head, machines) and records in probe::Control what the host did.
#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <cstring>
#include <memory>
#include <string>

#include "probe_control.h"
#include "zelvar/frame.h"
#include "zelvar/long_action.h"
#include "zelvar/machine_factory.h"

namespace {

probe::Control g_control;

template <typename Fn>
Fn Host(zelvar::HostSlot slot) {
  return zelvar::HostSlotAs<Fn>(g_control.table, slot);
}

int ConfigInt(const char* key) { return Host<zelvar::GetConfigIntFn>(zelvar::kSlotGetConfigInt)("probe", key, 0); }

void Release(zelvar::ZMessage* message) { Host<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message); }

// Records every event; ends on a message with the session "done", and on its
// first run when a routine tick made it.
class ProbeMachine : public zelvar::StateMachine {
 public:
  ~ProbeMachine() override { g_control.ended.push_back(GetMachineId()); }
  unsigned StateMachineType() override { return probe::kProbeMachineType; }
  const char* MachineName() override { return "ProbeMachine"; }
  int DoNext(zelvar::InternalHead_t* head, void* data) override {
    probe::Seen seen{GetMachineId(), head->event_type, head->flow_no, GetState(), "", 0};
    if (head->event_type == zelvar::kEventMessage) {
      seen.text = static_cast<zelvar::ZMessage*>(data)->head().session();
      Release(static_cast<zelvar::ZMessage*>(data));
    } else if (head->event_type == zelvar::kEventLongAction) {
      auto* record = static_cast<zelvar::LongActionResult*>(data);
      seen.text = record->output + "|" + record->error, seen.status = record->status;
    } else if (head->event_type == zelvar::kEventAio) {
      auto* record = static_cast<zelvar::AioResult*>(data);
      seen.text = std::to_string(record->error), seen.status = record->result;
    } else if (head->event_type == zelvar::kEventPlugin) {
      seen.text = *std::unique_ptr<std::string>(static_cast<std::string*>(data));
    }
    g_control.seen.push_back(seen);
    SetState(1);
    return IsCreatedByRoutine() || seen.text == "done" ? zelvar::kMachineDone : zelvar::kKeepMachine;
  }
};

zelvar::StateMachine* CreateProbe() { return new ProbeMachine(); }

}  // namespace

extern "C" {

void OnPeekInterface(zelvar::HostFunction* table) {
  g_control = probe::Control();
  std::memcpy(g_control.table, table, sizeof g_control.table);
  g_control.calls.push_back("OnPeekInterface");
}

int OnInit(void* context) {
  g_control.init_context = static_cast<const char*>(context);
  g_control.calls.push_back("OnInit");
  if (!zelvar::MachineFactory::Instance()->HasType(probe::kProbeMachineType)) {
    zelvar::MachineFactory::AddMachine(probe::kProbeMachineType, &CreateProbe);
  }
  Host<zelvar::SetRoutinePeriodFn>(zelvar::kSlotSetRoutinePeriod)(ConfigInt("routine_period_us"));
  std::string command = Host<zelvar::GetConfigStringFn>(zelvar::kSlotGetConfigString)("probe", "command", "");
  zelvar::ExecuteShell2 action("ExecuteShell2");  // for no machine, when the test gives one
  action.Param(zelvar::ExecuteShell2::kCommandParam, command);
  if (!command.empty()) Host<zelvar::StartLongActionFn>(zelvar::kSlotStartLongAction)(&action, 0, 0);
  const int result = ConfigInt("init_result");
  if (result != 0) {  // the host is to quote the last error line, not an earlier one nor a later info line
    for (const char* line : {"probe: an earlier error", "probe: told to fail"})
      Host<zelvar::LogFn>(zelvar::kSlotLog)(4, "%s", line);
    Host<zelvar::LogFn>(zelvar::kSlotLog)(3, "probe: giving up");
  }
  return result;
}

int OnConnect(uint64_t connA, uint64_t connB) { return g_control.connects.emplace_back(connA, connB), 0; }

int OnDisconnect(uint64_t connA, uint64_t connB) { return g_control.disconnects.emplace_back(connA, connB), 0; }

// 100 until a whole frame is in, -1 for bytes that are not an envelope; each
// envelope goes to a new machine of its message type.
int OnDataIn(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut, zelvar::StateMachine** machineOut) {
  bufferevent* bev = Host<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  evbuffer* input = bufferevent_get_input(bev);
  const zelvar::FrameCut cut = zelvar::CutFrame(input);
  if (cut.outcome == zelvar::FrameCut::kNeedMore) return 100;
  auto* message = new zelvar::ZMessage();
  bool parsed = cut.outcome == zelvar::FrameCut::kOneFrame && zelvar::TakeFrame(input, cut, message);
  // A large reply; after "flood" -1, as for a message no machine takes.
  const std::string& session = message->head().session();
  if (parsed && (session == "flood" || session == "answer")) {
    std::string reply(ConfigInt("flood_bytes"), '\0');
    for (size_t i = 0; i < reply.size(); ++i) reply[i] = static_cast<char>(i % 251);
    bufferevent_write(bev, reply.data(), reply.size());
    parsed = session == "answer";
  }
  auto create = Host<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage);
  *machineOut = parsed ? create(message->head().message_type()) : nullptr;
  *messageOut = *machineOut != nullptr ? message : (Release(message), nullptr);
  return *machineOut != nullptr ? 0 : -1;
}

// A machine a tick when the test asked for ticks.
int OnRoutine(zelvar::StateMachine** machineOut) {
  if (ConfigInt("routine_period_us") == 0) return 0;
  *machineOut = new ProbeMachine();
  (*machineOut)->SetCreatedByRoutine(true);
  return 0;
}

void* OnGetPluginHandle() { return &g_control; }

int OnIsReady() { return 1; }

void OnUnload() {
  g_control.calls.push_back("OnUnload");
  Host<zelvar::LogFn>(zelvar::kSlotLog)(3, "probe unloaded");
}

}  // extern "C"
