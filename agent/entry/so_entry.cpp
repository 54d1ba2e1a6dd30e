#include "entry/so_entry.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <cstring>

#include "framework/bev_machine_util.h"
#include "framework/evbuffer_zero_copy_stream.h"
#include "framework/host_api.h"
#include "framework/routine_util.h"
#include "zelvar/frame.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message_util.h"

using ovita2::HostFn;

zelvar::HostFunction g_sOXETInterface[zelvar::kHostSlotCount] = {};

OnInitFn fn_usr_OnInit = nullptr;
OnConnectFn fn_usr_OnConnect = nullptr;
OnDisconnectFn fn_usr_OnDisconnect = nullptr;
OnDataInFn fn_usr_OnDataIn = nullptr;

void OnPeekInterface(zelvar::HostFunction* table) {
  std::memcpy(g_sOXETInterface, table, sizeof(g_sOXETInterface));
  ovita2::HostLog(1, "OnPeekInterface entry");
}

int OnInit(void* hostContext) {
  OnInitFn hook = fn_usr_OnInit;
  if (hook != nullptr && hook != &OnInit) return hook(hostContext);
  ovita2::HostLog(1, "OnInit entry");
  return 0;
}

int OnConnect(uint64_t connA, uint64_t connB) {
  OnConnectFn hook = fn_usr_OnConnect;
  if (hook != nullptr && hook != &OnConnect) return hook(connA, connB);
  ovita2::HostLog(1, "OnConnect entry");
  return 0;
}

int OnDisconnect(uint64_t connA, uint64_t connB) {
  OnDisconnectFn hook = fn_usr_OnDisconnect;
  if (hook != nullptr && hook != &OnDisconnect) return hook(connA, connB);
  ovita2::HostLog(1, "OnDisconnect entry");
  return 0;
}

namespace {

zelvar::ZMessage* AcquireClearedMessage() {
  zelvar::ZMessage* message = HostFn<zelvar::AcquireMessageFn>(zelvar::kSlotAcquireMessage)(0);
  if (message == nullptr) return new zelvar::ZMessage();
  message->Clear();
  return message;
}

void ReleaseMessage(zelvar::ZMessage* message) {
  HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message);
}

// Decodes the frame at the front of the input into a pooled envelope without
// copying it, and drains what was read. Answers kDataInRouted with the
// envelope in *messageOut; kDataInNeedMore while the frame is not all here;
// kDataInError for a refused frame, or with the envelope in *messageOut when
// its body does not parse. A socket read usually leaves many small frames in
// one chain of the buffer: such a frame is cut and parsed straight from that
// chain on one peek. Only a frame that spans chains needs the stream.
int DecodeFrontFrame(bufferevent* bev, zelvar::ZMessage** messageOut) {
  evbuffer* input = bufferevent_get_input(bev);
  evbuffer_iovec first;
  if (evbuffer_peek(input, static_cast<ev_ssize_t>(zelvar::kFramePrefixSize), nullptr, &first, 1) == 1) {
    const zelvar::FrameCut cut = zelvar::CutFrame(first.iov_base, first.iov_len);
    if (cut.outcome == zelvar::FrameCut::kOneFrame) {
      zelvar::ZMessage* message = AcquireClearedMessage();
      const char* body = static_cast<const char*>(first.iov_base) + zelvar::kFramePrefixSize;
      const bool parsed = message->ParseFromArray(body, static_cast<int>(cut.bodySize));
      evbuffer_drain(input, cut.FrameSize());
      *messageOut = message;
      return parsed ? kDataInRouted : kDataInError;
    }
  }
  const zelvar::FrameCut cut = zelvar::CutFrame(input);
  if (cut.outcome == zelvar::FrameCut::kNeedMore) return kDataInNeedMore;
  if (cut.outcome == zelvar::FrameCut::kBadFrame) return kDataInError;
  zelvar::ZMessage* message = AcquireClearedMessage();
  evbufferZeroCopyInputStream stream(bev);
  stream.SetLimit(static_cast<int32_t>(cut.FrameSize()));  // the codec's bound keeps it in range
  *messageOut = message;
  return message->ParseFromZeroCopyStream(&stream) ? kDataInRouted : kDataInError;
}

// The machine that is to receive `message`: the live machine a reply names;
// else a new machine serving the message's type (which answers on this
// connection); else the machine that owns the conversation.
zelvar::StateMachine* ChooseReceiver(const zelvar::ZMessage& message, uint64_t connA, uint64_t connB,
                                     const char** tag) {
  const zelvar::Head& head = message.head();
  if (head.kind() == zelvar::kKindResponse && head.dst_machine_id() != 0) {
    *tag = "from_proc_out";
    return zelvar::MachinePool::Instance()->GetMachine(head.dst_machine_id());
  }
  auto create = HostFn<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage);
  if (zelvar::StateMachine* created = create(head.message_type())) {
    if (auto* served = dynamic_cast<BEVMachineUtil*>(created)) served->SetReplyConnection(connA, connB);
    *tag = "from_proc_in";
    return created;
  }
  *tag = "from_proc_out";
  return zelvar::MachinePool::Instance()->GetMachine(head.owner_machine_id());
}

}  // namespace

int OnDataIn(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut, zelvar::StateMachine** machineOut) {
  OnDataInFn hook = fn_usr_OnDataIn;
  if (hook != nullptr && hook != &OnDataIn) return hook(connA, connB, messageOut, machineOut);

  bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  if (bev == nullptr) return kDataInError;
  zelvar::ZMessage* message = nullptr;
  const int decoded = DecodeFrontFrame(bev, &message);
  if (decoded != kDataInRouted) {
    if (message != nullptr) ReleaseMessage(message);
    return decoded;
  }

  const char* tag = "";
  zelvar::StateMachine* machine = ChooseReceiver(*message, connA, connB, &tag);
  if (machine == nullptr) {
    if (ovita2::LogEnabled(4)) ovita2::HostLog(4, "Can't find machine for\n%s", message->DebugString().c_str());
    ReleaseMessage(message);
    return kDataInError;
  }
  if (ovita2::LogEnabled(1)) ovita2::HostLog(1, "%s\n%s", tag, message->DebugString().c_str());
  *messageOut = message;
  *machineOut = machine;
  return kDataInRouted;
}

int OnRoutine(zelvar::StateMachine** machineOut) {
  zelvar::StateMachine* machine = RoutineUtil::Instance()->StartFirstDue(ovita2::HostNow);
  if (machine != nullptr) *machineOut = machine;
  return 0;
}
