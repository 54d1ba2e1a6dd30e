// The agent's inbound reader: bytes on a connection, cut into frames and routed
// (OnDataIn), then the machines they start (a real-time switch request) run.
#include <cstddef>
#include <cstdint>
#include <string>

#include "test_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ovita2::testing::ResetAgentState();
  ovita2::testing::TestHost host;
  ovita2::testing::TestPeer& peer = host.Accept("10.0.0.1", 4000);
  peer.WriteRaw(std::string(reinterpret_cast<const char*>(data), size));
  host.Route(peer);
  host.RunPending();
  return 0;
}
