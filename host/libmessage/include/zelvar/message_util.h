// Building envelope heads.
//
// NewMessage fills the head of a request; MakeResponse fills the head of the
// answer to a request so that it finds its way back to the machine that asked:
//
//   field             NewMessage (request)        MakeResponse(request, type, response)
//   message_type      the type argument           the type argument
//   kind              1 (request)                 2 (answers an existing conversation)
//   flow_no           the flow-number argument    copied from the request
//   session           the session argument        copied from the request
//   src_machine_id    the sender's machine id     0
//   dst_machine_id    0                           the request's src_machine_id
//   owner_machine_id  the sender's machine id     the request's owner_machine_id
//   result            0                           0
#ifndef ZELVAR_MESSAGE_UTIL_H
#define ZELVAR_MESSAGE_UTIL_H

#include <string>

#include "zelvar/message.pb.h"

namespace zelvar {

constexpr unsigned kKindRequest = 1;
constexpr unsigned kKindResponse = 2;

// The arguments after `machineId` are kept for callers written against the
// framework's full signature; they do not change the head.
int NewMessage(ZMessage* message, unsigned flowNo, const std::string& session, int messageType,
               int reserved1, bool reserved2, unsigned machineId, unsigned reserved3,
               const char* reserved4, const char* reserved5, const char* reserved6);

int MakeResponse(const ZMessage& request, int messageType, ZMessage* response);

}  // namespace zelvar

#endif  // ZELVAR_MESSAGE_UTIL_H
