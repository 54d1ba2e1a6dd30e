#include "test_peer.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdlib>
#include <cstdio>

#include "test_host.h"

namespace ovita2 {
namespace testing {

std::string Frame(const zelvar::ZMessage& message) {
  std::string body;
  message.SerializeToString(&body);
  uint32_t prefix = htonl(static_cast<uint32_t>(body.size()));
  return std::string(reinterpret_cast<const char*>(&prefix), sizeof(prefix)) + body;
}

TestPeer::TestPeer(TestHost* host, event_base* base, std::string ip, uint16_t port, uint64_t connA, uint64_t connB)
    : m_pHost(host), m_strIp(std::move(ip)), m_uPort(port), m_u64ConnA(connA), m_u64ConnB(connB) {
  bufferevent* pair[2] = {nullptr, nullptr};
  if (bufferevent_pair_new(base, 0, pair) != 0) {
    std::fprintf(stderr, "TestPeer: bufferevent_pair_new failed\n");
    std::abort();
  }
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
  evbuffer* input = bufferevent_get_input(m_pTestSide);
  std::string bytes(evbuffer_get_length(input), '\0');
  if (!bytes.empty()) evbuffer_remove(input, &bytes[0], bytes.size());
  return bytes;
}

bool TestPeer::ReadFrame(zelvar::ZMessage* message) {
  evbuffer* input = bufferevent_get_input(m_pTestSide);
  uint32_t prefix = 0;
  if (evbuffer_copyout(input, &prefix, sizeof(prefix)) != static_cast<ev_ssize_t>(sizeof(prefix))) return false;
  size_t length = ntohl(prefix);
  if (evbuffer_get_length(input) < sizeof(prefix) + length) return false;
  evbuffer_drain(input, sizeof(prefix));
  std::string body(length, '\0');
  if (length != 0) evbuffer_remove(input, &body[0], length);
  message->Clear();
  return message->ParseFromString(body);
}

std::vector<zelvar::ZMessage> TestPeer::ReadFrames() {
  std::vector<zelvar::ZMessage> frames;
  zelvar::ZMessage message;
  while (ReadFrame(&message)) frames.push_back(message);
  return frames;
}

void TestPeer::WriteRaw(const std::string& bytes) { bufferevent_write(m_pTestSide, bytes.data(), bytes.size()); }

void TestPeer::WriteFrame(const zelvar::ZMessage& message) { WriteRaw(Frame(message)); }

int TestPeer::Send(const zelvar::ZMessage& message) {
  WriteFrame(message);
  return m_pHost->Route(*this);
}

}  // namespace testing
}  // namespace ovita2
