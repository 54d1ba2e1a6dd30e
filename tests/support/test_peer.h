// TestPeer: the far end of one connection of the test host, a bufferevent
// pair: the agent holds one side (from ConnectTo or GetConnectionBev), the
// test the other. Owned by its TestHost.
#ifndef OVITA2_TESTS_SUPPORT_TEST_PEER_H
#define OVITA2_TESTS_SUPPORT_TEST_PEER_H

#include <cstdint>
#include <string>

#include "zelvar/frame.h"

struct bufferevent;
struct event_base;

namespace ovita2::testing {

class TestHost;

class TestPeer {
 public:
  TestPeer(TestHost* host, event_base* base, std::string ip, uint16_t port, uint64_t connA, uint64_t connB);
  ~TestPeer();
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  const std::string& Ip() const { return m_strIp; }
  uint16_t Port() const { return m_uPort; }
  uint64_t ConnA() const { return m_u64ConnA; }
  uint64_t ConnB() const { return m_u64ConnB; }
  bufferevent* AgentSide() const { return m_pAgentSide; }

  // What the agent sent and the test has not read yet.
  size_t PendingBytes() const;
  std::string ReadRaw();
  // The next complete frame, decoded; false when none is complete.
  bool ReadFrame(zelvar::ZMessage* message);

  // Bytes into the agent's input, not routed.
  void WriteRaw(const std::string& bytes);
  // Frames `message` into the agent's input and routes it (TestHost::Route).
  int Send(const zelvar::ZMessage& message);

  // The host forgets the connection: GetConnectionBev gives null for it.
  void Close() { m_bOpen = false; }
  bool IsOpen() const { return m_bOpen; }
  bool outbound = false;  // made by the agent's ConnectTo

 private:
  TestHost* m_pHost;
  std::string m_strIp;
  uint16_t m_uPort;
  uint64_t m_u64ConnA;
  uint64_t m_u64ConnB;
  bufferevent* m_pAgentSide = nullptr;
  bufferevent* m_pTestSide = nullptr;
  bool m_bOpen = true;
};

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_SUPPORT_TEST_PEER_H
