// TestPeer: the far end of one connection of the test host, as a test sees it.
//
// A connection is a libevent bufferevent pair: the agent gets one side (from
// ConnectTo or GetConnectionBev) and the test holds the other, so what the
// agent writes can be read back as frames, and what the test writes lands in
// the agent's input, to be routed by OnDataIn (Send does both steps).
//
// Owned by its TestHost; test thread only.
#ifndef OVITA2_TESTS_SUPPORT_TEST_PEER_H
#define OVITA2_TESTS_SUPPORT_TEST_PEER_H

#include <cstdint>
#include <string>
#include <vector>

#include "zelvar/message.pb.h"

struct bufferevent;
struct event_base;

namespace ovita2 {
namespace testing {

class TestHost;

class TestPeer {
 public:
  TestPeer(TestHost* host, event_base* base, std::string ip, uint16_t port, uint64_t connA, uint64_t connB);
  ~TestPeer();

  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  const std::string& Ip() const { return m_strIp; }
  uint16_t Port() const { return m_uPort; }
  // The pair of identifiers the host names this connection by.
  uint64_t ConnA() const { return m_u64ConnA; }
  uint64_t ConnB() const { return m_u64ConnB; }
  // The side the agent writes to and reads from.
  bufferevent* AgentSide() const { return m_pAgentSide; }

  // --- what the agent sent ---------------------------------------------------
  size_t PendingBytes() const;
  // Every byte the agent sent and the test has not read yet.
  std::string ReadRaw();
  // The next complete frame, decoded; false when none is complete.
  bool ReadFrame(zelvar::ZMessage* message);
  // Every complete frame, in order.
  std::vector<zelvar::ZMessage> ReadFrames();

  // --- towards the agent --------------------------------------------------------
  // Bytes into the agent's input, as they are; nothing is routed.
  void WriteRaw(const std::string& bytes);
  void WriteFrame(const zelvar::ZMessage& message);
  // WriteFrame, then OnDataIn routes what is complete and the envelopes are
  // queued for their machines (they run at the host's next RunPending).
  // Returns OnDataIn's last result: 100 when everything was consumed.
  int Send(const zelvar::ZMessage& message);

  // The host forgets the connection: GetConnectionBev gives null for it.
  void Close() { m_bOpen = false; }
  bool IsOpen() const { return m_bOpen; }

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

// One frame's bytes: the 4-byte big-endian length, then the envelope.
std::string Frame(const zelvar::ZMessage& message);

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_SUPPORT_TEST_PEER_H
