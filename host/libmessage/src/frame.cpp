#include "zelvar/frame.h"

#include <event2/buffer.h>

namespace zelvar {

FrameCut CutFrame(evbuffer* input) {
  const size_t buffered = evbuffer_get_length(input);
  if (buffered < kFramePrefixSize) return {FrameCut::kNeedMore, 0};
  // A prefix that lies whole in the first chain, as it nearly always does, is
  // read where it is; only one split across chains is copied out.
  evbuffer_iovec first;
  if (evbuffer_peek(input, static_cast<ev_ssize_t>(kFramePrefixSize), nullptr, &first, 1) == 1) {
    return detail::CutAfterPrefix(static_cast<const unsigned char*>(first.iov_base), buffered);
  }
  unsigned char prefix[kFramePrefixSize];
  if (evbuffer_copyout(input, prefix, sizeof(prefix)) != static_cast<ev_ssize_t>(sizeof(prefix))) {
    return {FrameCut::kBadFrame, 0};
  }
  return detail::CutAfterPrefix(prefix, buffered);
}

bool TakeFrame(evbuffer* input, const FrameCut& cut, ZMessage* message) {
  const unsigned char* frame = evbuffer_pullup(input, static_cast<ev_ssize_t>(cut.FrameSize()));
  bool parsed =
      frame != nullptr && message->ParseFromArray(frame + kFramePrefixSize, static_cast<int>(cut.bodySize));
  evbuffer_drain(input, cut.FrameSize());
  return parsed;
}

}  // namespace zelvar
