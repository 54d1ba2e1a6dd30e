// What every agent test shares: a fresh process state, a test host, a builder
// of addresses.
#ifndef OVITA2_TESTS_AGENT_AGENT_TEST_H
#define OVITA2_TESTS_AGENT_AGENT_TEST_H

#include <gtest/gtest.h>

#include <string>

#include "framework/bev_machine_util.h"
#include "naming/name_container.h"
#include "test_host.h"
#include "zelvar/message_util.h"

// Serves requests of its own type: waits, and gives back every message it gets.
class EchoMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 4243001;
  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "EchoMachine"; }
  int Entry_Init(zelvar::event_key_t key, void* data);
};

namespace ovita2::testing {

class AgentTest : public ::testing::Test {
 protected:
  AgentTest() { ResetAgentState(); }
  ~AgentTest() override { ResetAgentState(); }

  static zelvar::kadri::NameNodeContent Address(const std::string& ip, int port) {
    zelvar::kadri::NameNodeContent content;
    content.set_ip(ip), content.set_port(port);
    return content;
  }
  static void AddInstance(const std::string& name, const std::string& ip, int port) {
    NameContainer::Instance()->SetNameValue(name, name + "-" + ip, Address(ip, port));
  }

  TestHost host_;
};

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_AGENT_AGENT_TEST_H
