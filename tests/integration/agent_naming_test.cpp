// The agent inside zelvar-host with the embedded registry: the routines
// resolve the configured names from the registry's nodes and publish the
// agent's own node, which the registry then serves to anyone who asks.
#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>

#include "agent_registry_host.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/state_machine.h"
#include "zelvar/zk_plugin.h"

namespace {

constexpr unsigned kReaderType = 4245001;

// Reads one node through the registry plug-in, as any machine of the host would.
class NodeReader : public zelvar::StateMachine {
 public:
  unsigned StateMachineType() override { return kReaderType; }
  const char* MachineName() override { return "NodeReader"; }

  static int Ask(zelvar::StateMachine* self, zelvar::event_key_t, void*) {
    auto* reader = static_cast<NodeReader*>(self);
    auto* handle = static_cast<zelvar::ZKPluginHandle*>(
        zelvar_host::Host::Current()->GetPluginHandle("zookeeper"));
    if (handle == nullptr) return zelvar::kMachineFailed;
    if (handle->ZKPluginCall(reader->GetMachineId(), "get", reader->path.c_str(), static_cast<watcher_fn>(nullptr)) != 0)
      return zelvar::kMachineFailed;
    reader->SetState(1);
    return zelvar::kKeepMachine;
  }
  static int Read(zelvar::StateMachine* self, zelvar::event_key_t, void* data) {
    std::unique_ptr<zelvar::ZKPluginResponse> response(static_cast<zelvar::ZKPluginResponse*>(data));
    *static_cast<NodeReader*>(self)->answer = *response;
    *static_cast<NodeReader*>(self)->done = true;
    return zelvar::kMachineDone;
  }

  std::string path;
  zelvar::ZKPluginResponse* answer = nullptr;
  bool* done = nullptr;
};

bool ReadNode(ovita2_it::AgentRegistryHost& host, const std::string& path, zelvar::ZKPluginResponse* answer) {
  static bool declared = false;
  if (!declared) {
    zelvar::StateMachine::SetGlobalStateList2(kReaderType, -1, &NodeReader::Ask);
    zelvar::StateMachine::SetGlobalStateList2(kReaderType, 1, &NodeReader::Read);
    declared = true;
  }
  bool done = false;
  auto* reader = new NodeReader();
  reader->path = path;
  reader->answer = answer;
  reader->done = &done;
  host.host().Runtime().Start(reader);
  return host.host().RunUntil([&] { return done; }, 5.0);
}

TEST(AgentNaming, ResolvesItsNamesFromTheEmbeddedRegistryAndPublishesItsOwnNode) {
  int port = ovita2_it::FreeLoopbackPort();
  ovita2_it::AgentRegistryHost agent;
  std::string error;
  ASSERT_TRUE(agent.Start(EMBEDDED_PLUGIN_PATH,
                          "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
                              "\n[common]\nmyname = /ovita2/agents/a1\n"
                              "[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n"
                              "[embedded_registry]\n/ovita2/names/MASTER/m1 = 127.0.0.1:7100\n"
                              "/ovita2/names/MASTER/m2 = 127.0.0.1:7101\n"
                              "/ovita2/names/TELLAR2_ACCESS/a1 = 127.0.0.1:7200\n",
                          &error))
      << error;

  // The routines start one a second in their order: names early, registration a few seconds later.
  ASSERT_TRUE(agent.RunUntilLogged("|Register myself finished", 1, 15.0)) << agent.LogText();
  ASSERT_TRUE(agent.RunUntilLogged("name=TELLAR2_ACCESS, ip=127.0.0.1, port=7200", 1, 5.0)) << agent.LogText();
  std::string log = agent.LogText();
  EXPECT_NE(log.find("|state:Entry_WaitInfo|name=MASTER, ip=127.0.0.1, port=7100\n"), std::string::npos) << log;
  EXPECT_NE(log.find("|state:Entry_WaitInfo|name=MASTER, ip=127.0.0.1, port=7101\n"), std::string::npos) << log;
  EXPECT_NE(log.find("|state:Entry_Init|Registe myself node: /ovita2/agents/a1\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("failed"), std::string::npos) << log;

  zelvar::ZKPluginResponse node;
  ASSERT_TRUE(ReadNode(agent, "/ovita2/agents/a1", &node));
  ASSERT_EQ(node.retcode, 0) << node.error_message;
  zelvar::kadri::NameNodeContent content;
  ASSERT_TRUE(content.ParseFromString(node.string));
  EXPECT_EQ(content.ip(), "127.0.0.1");
  EXPECT_EQ(content.port(), port);
  EXPECT_NE(node.stat.ephemeralOwner, 0);

  // Registered: a later run has nothing to do and leaves the node alone.
  ASSERT_TRUE(agent.StartMachine(ovita2_it::AgentRegistryHost::kRegisterMyselfType));
  agent.host().RunUntil([] { return false; }, 0.2);
  EXPECT_EQ(agent.Count("Registe myself node"), 1u);
  agent.host().Shutdown();
}

}  // namespace
