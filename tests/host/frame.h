// Frames as they travel on a connection: a 4-byte big-endian length, then the
// serialised envelope. Shared by the probe plug-in and the tests.
#ifndef OVITA2_TESTS_HOST_FRAME_H
#define OVITA2_TESTS_HOST_FRAME_H

#include <cstdint>
#include <string>

#include "zelvar/message.pb.h"

namespace probe {

inline std::string LengthPrefix(uint32_t length) {
  std::string prefix(4, '\0');
  prefix[0] = static_cast<char>(length >> 24);
  prefix[1] = static_cast<char>(length >> 16);
  prefix[2] = static_cast<char>(length >> 8);
  prefix[3] = static_cast<char>(length);
  return prefix;
}

inline std::string EncodeFrame(const zelvar::ZMessage& message) {
  std::string body = message.SerializeAsString();
  return LengthPrefix(static_cast<uint32_t>(body.size())) + body;
}

inline zelvar::ZMessage MakeMessage(unsigned type, unsigned kind, const std::string& session,
                                    unsigned dst = 0, unsigned src = 0) {
  zelvar::ZMessage message;
  message.mutable_head()->set_message_type(type);
  message.mutable_head()->set_kind(kind);
  message.mutable_head()->set_session(session);
  message.mutable_head()->set_dst_machine_id(dst);
  message.mutable_head()->set_src_machine_id(src);
  return message;
}

}  // namespace probe

#endif  // OVITA2_TESTS_HOST_FRAME_H
