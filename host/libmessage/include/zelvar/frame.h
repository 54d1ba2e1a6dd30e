// The frame every envelope travels in on a connection, frames back to back
// with nothing between them:
//
//   | offset | size | field                                                   |
//   |--------|------|---------------------------------------------------------|
//   | 0      | 4    | N, unsigned 32-bit big-endian; does not count itself    |
//   | 4      | N    | zelvar.ZMessage, protobuf binary encoding               |
//
// Every reader cuts frames with CutFrame, so that all of them agree on when a
// frame is complete and which frames are refused.
#ifndef ZELVAR_FRAME_H
#define ZELVAR_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zelvar/message.pb.h"

struct evbuffer;

namespace zelvar {

constexpr size_t kFramePrefixSize = 4;
// The longest frame, prefix included, that a reader takes: parsers and input
// streams count positions in signed 32 bits. The host bounds a connection's
// input far below this, so only a lying prefix reaches it.
constexpr uint64_t kFrameMaxSize = 0x7FFFFFFF;

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

// What the front of a byte stream holds.
struct FrameCut {
  enum Outcome {
    kNeedMore,  // the prefix or the body is not all here yet
    kBadFrame,  // the stream cannot go on: a frame over kFrameMaxSize, or an unreadable buffer
    kOneFrame,  // one whole frame starts the stream
  };
  Outcome outcome;
  size_t bodySize;  // of the first frame, when kOneFrame

  size_t FrameSize() const { return kFramePrefixSize + bodySize; }
};

namespace detail {

// The cut after `prefix`, with `buffered` bytes in the stream, prefix included.
inline FrameCut CutAfterPrefix(const unsigned char* prefix, size_t buffered) {
  // 64 bits, so that a prefix near 0xFFFFFFFF plus its own size cannot wrap.
  const uint64_t frameSize = uint64_t{FrameBodyLength(prefix)} + kFramePrefixSize;
  if (frameSize > buffered) return {FrameCut::kNeedMore, 0};
  if (frameSize > kFrameMaxSize) return {FrameCut::kBadFrame, 0};
  return {FrameCut::kOneFrame, static_cast<size_t>(frameSize - kFramePrefixSize)};
}

}  // namespace detail

// Completeness is decided before the bound: a prefix near 0xFFFFFFFF waits
// for bytes that never come rather than being refused, as readers always did;
// the host's input limit ends such a connection. Nothing is consumed. Inline,
// as every inbound frame is cut: a call into the library would cost as much
// as the cut.
inline FrameCut CutFrame(const void* bytes, size_t size) {
  if (size < kFramePrefixSize) return {FrameCut::kNeedMore, 0};
  return detail::CutAfterPrefix(static_cast<const unsigned char*>(bytes), size);
}
FrameCut CutFrame(evbuffer* input);

// Parses the body of the frame `cut` found at the front of `input` into
// `message` and drains the frame, whether or not the body parsed. Makes the
// body contiguous first; readers that must not copy parse in place instead.
bool TakeFrame(evbuffer* input, const FrameCut& cut, ZMessage* message);

}  // namespace zelvar

#endif  // ZELVAR_FRAME_H
