// The entry points zelvar-host calls. Frames are 4-byte big-endian lengths
// followed by a serialised envelope; each complete frame becomes one
// ServeRequestMachine.
#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <string>

#include "plugin/control_plane_plugin.h"
#include "plugin/host_access.h"
#include "plugin/serve_request_machine.h"
#include "zelvar/frame.h"
#include "zelvar/message.pb.h"

using controlplane::ControlPlanePlugin;
using controlplane::HostLog;
using controlplane::HostSlot;

namespace {

constexpr int kRouted = 0;
constexpr int kNeedMore = 100;
constexpr int kUndecodable = -1;

zelvar::ZMessage* AcquireMessage() {
  zelvar::ZMessage* message = HostSlot<zelvar::AcquireMessageFn>(zelvar::kSlotAcquireMessage)(0);
  if (message == nullptr) return new zelvar::ZMessage();
  message->Clear();
  return message;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void OnPeekInterface(zelvar::HostFunction* table) {
  controlplane::KeepHostTable(table);
}

__attribute__((visibility("default"))) const zelvar::ConfigKeyDeclaration* OnDescribeConfig() {
  return controlplane::kPluginConfigKeys;
}

__attribute__((visibility("default"))) int OnInit(void* hostContext) {
  const char* configPath = static_cast<const char*>(hostContext);
  return ControlPlanePlugin::Start(configPath != nullptr ? configPath : "");
}

__attribute__((visibility("default"))) int OnConnect(uint64_t connA, uint64_t connB) {
  if (ControlPlanePlugin* plugin = ControlPlanePlugin::Instance()) plugin->OnConnect(connA, connB);
  return 0;
}

__attribute__((visibility("default"))) int OnDisconnect(uint64_t connA, uint64_t connB) {
  if (ControlPlanePlugin* plugin = ControlPlanePlugin::Instance()) plugin->OnDisconnect(connA, connB);
  return 0;
}

__attribute__((visibility("default"))) int OnDataIn(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut,
                                                    zelvar::StateMachine** machineOut) {
  bufferevent* bev = HostSlot<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  if (bev == nullptr || ControlPlanePlugin::Instance() == nullptr) return kUndecodable;
  evbuffer* input = bufferevent_get_input(bev);
  const zelvar::FrameCut cut = zelvar::CutFrame(input);
  if (cut.outcome == zelvar::FrameCut::kNeedMore) return kNeedMore;
  if (cut.outcome == zelvar::FrameCut::kBadFrame) return kUndecodable;

  zelvar::ZMessage* message = AcquireMessage();
  const bool decoded = zelvar::TakeFrame(input, cut, message);
  if (!decoded) {
    HostSlot<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message);
    HostLog(4, "a frame of " + std::to_string(cut.FrameSize()) + " bytes is no envelope; closing its connection");
    return kUndecodable;
  }
  *messageOut = message;
  *machineOut = new controlplane::ServeRequestMachine(connA, connB,
                                                      ControlPlanePlugin::Instance()->PeerOf(connA, connB));
  return kRouted;
}

__attribute__((visibility("default"))) int OnRoutine(zelvar::StateMachine** machineOut) {
  ControlPlanePlugin* plugin = ControlPlanePlugin::Instance();
  if (plugin == nullptr) return 0;
  if (zelvar::StateMachine* machine = plugin->OnRoutine()) *machineOut = machine;
  return 0;
}

__attribute__((visibility("default"))) void OnUnload() { ControlPlanePlugin::Stop(); }

}  // extern "C"
