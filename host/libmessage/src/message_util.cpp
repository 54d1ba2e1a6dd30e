#include "zelvar/message_util.h"

namespace zelvar {

int NewMessage(ZMessage* message, unsigned flowNo, const std::string& session, int messageType,
               int /*reserved1*/, bool /*reserved2*/, unsigned machineId, unsigned /*reserved3*/,
               const char* /*reserved4*/, const char* /*reserved5*/, const char* /*reserved6*/) {
  Head* head = message->mutable_head();
  head->Clear();
  head->set_message_type(static_cast<uint32_t>(messageType));
  head->set_kind(kKindRequest);
  head->set_flow_no(flowNo);
  head->set_session(session);
  head->set_src_machine_id(machineId);
  head->set_dst_machine_id(0);
  head->set_owner_machine_id(machineId);
  head->set_result(0);
  return 0;
}

int MakeResponse(const ZMessage& request, int messageType, ZMessage* response) {
  const Head& asked = request.head();
  Head* head = response->mutable_head();
  head->Clear();
  head->set_message_type(static_cast<uint32_t>(messageType));
  head->set_kind(kKindResponse);
  head->set_flow_no(asked.flow_no());
  head->set_session(asked.session());
  head->set_src_machine_id(0);
  head->set_dst_machine_id(asked.src_machine_id());
  head->set_owner_machine_id(asked.owner_machine_id());
  head->set_result(0);
  return 0;
}

}  // namespace zelvar
