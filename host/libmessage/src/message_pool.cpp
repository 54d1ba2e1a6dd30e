#include "zelvar/message_pool.h"

#include "zelvar/message.pb.h"

namespace zelvar {

MessagePool::~MessagePool() {
  for (ZMessage* message : m_vecFree) delete message;
}

MessagePool* MessagePool::Instance() {
  static MessagePool pool;
  return &pool;
}

ZMessage* MessagePool::Acquire() {
  if (m_vecFree.empty()) return nullptr;
  ZMessage* message = m_vecFree.back();
  m_vecFree.pop_back();
  return message;
}

void MessagePool::Release(ZMessage* message) {
  if (message == nullptr) return;
  if (m_vecFree.size() >= m_uCapacity) {
    delete message;
    return;
  }
  m_vecFree.push_back(message);
}

void MessagePool::ReleaseToInstance(void* message) {
  Instance()->Release(static_cast<ZMessage*>(message));
}

}  // namespace zelvar
