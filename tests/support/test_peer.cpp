#include "test_peer.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdlib>

#include "test_host.h"

namespace ovita2::testing {

TestPeer::TestPeer(TestHost* host, event_base* base, std::string ip, uint16_t port, uint64_t connA, uint64_t connB)
    : m_pHost(host), m_strIp(std::move(ip)), m_uPort(port), m_u64ConnA(connA), m_u64ConnB(connB) {
  bufferevent* pair[2] = {nullptr, nullptr};
  if (bufferevent_pair_new(base, 0, pair) != 0) std::abort();
  m_pAgentSide = pair[0];
  m_pTestSide = pair[1];
  // Without deferred callbacks a pair moves bytes across as soon as they are
  // written, so a test reads what the agent sent without running the loop.
  bufferevent_enable(m_pAgentSide, EV_READ | EV_WRITE);
  bufferevent_enable(m_pTestSide, EV_READ | EV_WRITE);
}

TestPeer::~TestPeer() {
  bufferevent_free(m_pAgentSide);
  bufferevent_free(m_pTestSide);
}

size_t TestPeer::PendingBytes() const { return evbuffer_get_length(bufferevent_get_input(m_pTestSide)); }

std::string TestPeer::ReadRaw() {
  std::string bytes(PendingBytes(), '\0');
  if (!bytes.empty()) evbuffer_remove(bufferevent_get_input(m_pTestSide), &bytes[0], bytes.size());
  return bytes;
}

bool TestPeer::ReadFrame(zelvar::ZMessage* message) {
  evbuffer* input = bufferevent_get_input(m_pTestSide);
  const zelvar::FrameCut cut = zelvar::CutFrame(input);
  return cut.outcome == zelvar::FrameCut::kOneFrame && zelvar::TakeFrame(input, cut, message);
}

void TestPeer::WriteRaw(const std::string& bytes) { bufferevent_write(m_pTestSide, bytes.data(), bytes.size()); }

int TestPeer::Send(const zelvar::ZMessage& message) {
  WriteRaw(zelvar::EncodeFrame(message));
  return m_pHost->Route(*this);
}

}  // namespace ovita2::testing
