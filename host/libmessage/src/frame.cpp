#include "zelvar/frame.h"

#include <event2/buffer.h>

namespace zelvar {

namespace {

FrameCut CutAfterPrefix(const unsigned char* prefix, size_t buffered) {
  // 64 bits, so that a prefix near 0xFFFFFFFF plus its own size cannot wrap.
  const uint64_t frameSize = uint64_t{FrameBodyLength(prefix)} + kFramePrefixSize;
  if (frameSize > buffered) return {FrameCut::kNeedMore, 0};
  if (frameSize > kFrameMaxSize) return {FrameCut::kBadFrame, 0};
  return {FrameCut::kOneFrame, static_cast<size_t>(frameSize - kFramePrefixSize)};
}

}  // namespace

FrameCut CutFrame(const void* bytes, size_t size) {
  if (size < kFramePrefixSize) return {FrameCut::kNeedMore, 0};
  return CutAfterPrefix(static_cast<const unsigned char*>(bytes), size);
}

FrameCut CutFrame(evbuffer* input) {
  const size_t buffered = evbuffer_get_length(input);
  if (buffered < kFramePrefixSize) return {FrameCut::kNeedMore, 0};
  // A prefix that lies whole in the first chain, as it nearly always does, is
  // read where it is; only one split across chains is copied out.
  evbuffer_iovec first;
  if (evbuffer_peek(input, static_cast<ev_ssize_t>(kFramePrefixSize), nullptr, &first, 1) == 1) {
    return CutAfterPrefix(static_cast<const unsigned char*>(first.iov_base), buffered);
  }
  unsigned char prefix[kFramePrefixSize];
  if (evbuffer_copyout(input, prefix, sizeof(prefix)) != static_cast<ev_ssize_t>(sizeof(prefix))) {
    return {FrameCut::kBadFrame, 0};
  }
  return CutAfterPrefix(prefix, buffered);
}

bool TakeFrame(evbuffer* input, const FrameCut& cut, ZMessage* message) {
  const unsigned char* frame = evbuffer_pullup(input, static_cast<ev_ssize_t>(cut.FrameSize()));
  bool parsed =
      frame != nullptr && message->ParseFromArray(frame + kFramePrefixSize, static_cast<int>(cut.bodySize));
  evbuffer_drain(input, cut.FrameSize());
  return parsed;
}

}  // namespace zelvar
