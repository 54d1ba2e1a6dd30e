// Frames as they travel on a connection: a 4-byte big-endian length, then the
// serialised envelope. Shared by the probe plug-in and the tests.
#ifndef OVITA2_TESTS_HOST_FRAME_H
#define OVITA2_TESTS_HOST_FRAME_H

#include <cstdint>
#include <string>

#include "zelvar/frame.h"
#include "zelvar/message.pb.h"

namespace probe {

inline std::string LengthPrefix(uint32_t length) {
  std::string prefix(zelvar::kFramePrefixSize, '\0');
  zelvar::PutFramePrefix(length, reinterpret_cast<unsigned char*>(&prefix[0]));
  return prefix;
}

using zelvar::EncodeFrame;

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
