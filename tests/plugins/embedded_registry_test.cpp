// The embedded registry's configuration, and the ZooKeeper registry's when it
// cannot run; neither needs a server.
#include "embedded/embedded_registry.h"

#include <gtest/gtest.h>

#include "answer_recorder.h"
#include "loaded_plugin.h"
#include "test_host.h"
#include "zelvar/kadri.pb.h"

namespace zelvar::registry {
namespace {

using testing::AnswerRecorder;
using testing::LoadedPlugin;
using testing::TestHost;

TEST(EmbeddedRegistry, AddressesAreIpColonPort) {
  std::string encoded;
  ASSERT_TRUE(EmbeddedRegistry::EncodeAddress("127.0.0.1:7100", &encoded));
  kadri::NameNodeContent content;
  ASSERT_TRUE(content.ParseFromString(encoded));
  EXPECT_EQ(content.ip(), "127.0.0.1");
  EXPECT_EQ(content.port(), 7100);

  ASSERT_TRUE(EmbeddedRegistry::EncodeAddress("[::1]:65535", &encoded));
  ASSERT_TRUE(content.ParseFromString(encoded));
  EXPECT_EQ(content.ip(), "::1");
  EXPECT_EQ(content.port(), 65535);

  for (const char* bad : {"", "127.0.0.1", ":7100", "host:", "host:0", "host:65536", "host:71x", "host:-1"}) {
    EXPECT_FALSE(EmbeddedRegistry::EncodeAddress(bad, &encoded)) << bad;
  }
}

TEST(EmbeddedRegistry, MalformedEntriesAreLoggedAndLeftOut) {
  TestHost host;
  host.SetConfig("embedded_registry", "/ovita2/names/MASTER/m1", "127.0.0.1:7100");
  host.SetConfig("embedded_registry", "/ovita2/names/MASTER/m2", "127.0.0.1");
  host.SetConfig("embedded_registry", "names/TELLAR2_ACCESS/t1", "127.0.0.1:7200");
  PluginHost pluginHost;
  pluginHost.Adopt(host.Table());
  EmbeddedRegistry registry(&pluginHost);

  EXPECT_EQ(registry.LoadConfiguration(), 1);
  EXPECT_TRUE(host.Logged("[embedded_registry] /ovita2/names/MASTER/m2 = \"127.0.0.1\" is not ip:port"));
  EXPECT_TRUE(host.Logged("[embedded_registry] key \"names/TELLAR2_ACCESS/t1\" is not a node path"));

  AnswerRecorder* machine = AnswerRecorder::Start(host);
  ZKCommand list;
  list.kind = ZKCommandKind::kListValue;
  list.path = "/ovita2/names/MASTER";
  ASSERT_EQ(registry.Call(machine->GetMachineId(), list), ZOK);
  ASSERT_TRUE(host.RunUntil([&] { return !machine->answers.empty(); }));
  ASSERT_EQ(machine->answers[0]->keyvalues.size(), 1u);
  EXPECT_EQ(machine->answers[0]->keyvalues[0].key, "m1");
}

TEST(ZooKeeperRegistry, RefusesToStartWithoutAnEnsemble) {
  TestHost host;
  LoadedPlugin plugin(OVITA2_ZOOKEEPER_PLUGIN_PATH, host);
  ASSERT_EQ(plugin.Error(), "");
  EXPECT_EQ(plugin.Init(), -1);
  EXPECT_TRUE(host.Logged("[zookeeper] hosts is not set"));
  EXPECT_FALSE(plugin.IsReady());
  AnswerRecorder* machine = AnswerRecorder::Start(host);
  EXPECT_NE(plugin.Handle()->ZKPluginCall(machine->GetMachineId(), "listvalue", "/", static_cast<watcher_fn>(nullptr)),
            0);
}

}  // namespace
}  // namespace zelvar::registry
