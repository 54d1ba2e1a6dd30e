// MessagePool: recycled envelopes behind the host's AcquireMessage and
// ReleaseMessage, so a busy connection does not allocate an envelope per frame.
//
// Acquire hands out a released envelope as it was left (callers clear it) or
// null when the pool is empty; Release keeps up to `capacity` envelopes and
// deletes the rest. The pool owns what it holds. Event-loop thread only.
#ifndef ZELVAR_MESSAGE_POOL_H
#define ZELVAR_MESSAGE_POOL_H

#include <cstddef>
#include <vector>

namespace zelvar {

class ZMessage;

class MessagePool {
 public:
  static constexpr size_t kDefaultCapacity = 256;

  explicit MessagePool(size_t capacity = kDefaultCapacity) : m_uCapacity(capacity) {}
  ~MessagePool();

  MessagePool(const MessagePool&) = delete;
  MessagePool& operator=(const MessagePool&) = delete;

  // The process-wide pool the host serves AcquireMessage / ReleaseMessage from.
  static MessagePool* Instance();

  ZMessage* Acquire();
  void Release(ZMessage* message);  // null is ignored
  // Release as a PayloadFn, for dropped message events.
  static void ReleaseToInstance(void* message);

  size_t Size() const { return m_vecFree.size(); }

 private:
  size_t m_uCapacity;
  std::vector<ZMessage*> m_vecFree;
};

}  // namespace zelvar

#endif  // ZELVAR_MESSAGE_POOL_H
