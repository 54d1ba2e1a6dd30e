// The frame every envelope travels in on a connection: a 4-byte big-endian
// length, then that many bytes of a serialised zelvar::ZMessage. Nothing else
// is on the stream.
#ifndef ZELVAR_FRAME_H
#define ZELVAR_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zelvar/message.pb.h"

namespace zelvar {

constexpr size_t kFramePrefixSize = 4;

// The body length a frame's prefix announces.
inline uint32_t FrameBodyLength(const unsigned char* prefix) {
  return (uint32_t{prefix[0]} << 24) | (uint32_t{prefix[1]} << 16) | (uint32_t{prefix[2]} << 8) | prefix[3];
}

inline void PutFramePrefix(uint32_t bodyLength, unsigned char* prefix) {
  prefix[0] = static_cast<unsigned char>(bodyLength >> 24);
  prefix[1] = static_cast<unsigned char>(bodyLength >> 16);
  prefix[2] = static_cast<unsigned char>(bodyLength >> 8);
  prefix[3] = static_cast<unsigned char>(bodyLength);
}

// The whole frame of `message`, prefix included.
inline std::string EncodeFrame(const ZMessage& message) {
  std::string frame(kFramePrefixSize, '\0');
  message.AppendToString(&frame);
  PutFramePrefix(static_cast<uint32_t>(frame.size() - kFramePrefixSize), reinterpret_cast<unsigned char*>(&frame[0]));
  return frame;
}

}  // namespace zelvar

#endif  // ZELVAR_FRAME_H
