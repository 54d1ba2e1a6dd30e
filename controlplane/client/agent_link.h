// AgentLink: the client's one conversation with an agent. It connects to the
// agent's listening port, sends one request framed as on the host's wire (a
// 4-byte big-endian length, then one serialised zelvar::ZMessage) and waits
// for one answering frame, on a libevent bufferevent of its own event base.
#ifndef OVITA2_CONTROLPLANE_AGENT_LINK_H
#define OVITA2_CONTROLPLANE_AGENT_LINK_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "zelvar/message.pb.h"

namespace controlplane {

// Where an agent listens, as given on the command line.
struct AgentEndpoint {
  bool m_bIpv6 = false;
  std::string m_strHost;  // the numeric address, without brackets
  uint16_t m_uPort = 0;
};

// "ip:port" (IPv4) or "[ipv6]:port"; nothing, with the reason, otherwise.
std::optional<AgentEndpoint> ParseAgentAddress(const std::string& text, std::string* error);

// Sends `request` to the agent at `address` and reads its answer, all within
// `timeout`. False with one line naming the address when it cannot connect,
// runs out of time, the agent closes without a whole answer, or the answer
// cannot be decoded.
bool ExchangeWithAgent(const std::string& address, const zelvar::ZMessage& request,
                       std::chrono::milliseconds timeout, zelvar::ZMessage* answer, std::string* error);

// What became of a request to switch an item's real-time monitoring.
struct SwitchOutcome {
  enum class Kind { kDone, kRefused, kFailed };
  Kind m_eKind = Kind::kFailed;
  int32_t m_iCode = 0;        // kRefused: the agent's code
  std::string m_strMessage;   // kRefused: the agent's message; kFailed: what went wrong
};

// Asks the agent at `address` to start (enable) or stop sending the output of
// item `itemId` line by line as it comes.
SwitchOutcome SwitchRealTimeMonitor(const std::string& address, uint32_t itemId, bool enable,
                                    std::chrono::milliseconds timeout);

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_AGENT_LINK_H
