// Finding this agent's task queue through a master: what the request says,
// which answers change the task-queue endpoint, and the lines each path writes.
#include "naming/update_task_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_state.h"
#include "zelvar/ovita2.pb.h"

zelvar::StateMachine* UpdateTaskQueueCreateMySelf();

namespace {

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

class UpdateTaskQueueTest : public ::testing::Test {
 protected:
  UpdateTaskQueueTest() {
    ovita2::testing::ResetAgentState();
    host_.SetConfig("common", "myname", "/zelvar/agents/agent-7");
    NameContainer::Instance()->SetNameValue("MASTER", "master-1", ovita2::testing::Address("10.0.0.1", 9100));
  }

  // Starts a machine and reads its request from the master.
  uint32_t StartAndReadRequest(zelvar::ZMessage* request) {
    uint32_t id = host_.Start(UpdateTaskQueueCreateMySelf()).id;
    EXPECT_TRUE(Master().ReadFrame(request));
    return id;
  }

  // Runs one machine to the end with this reply; true when the reply went back to the pool.
  bool Answer(int code, const std::string& error, const std::string& name, const std::string& ip, int port) {
    zelvar::ZMessage request;
    uint32_t id = StartAndReadRequest(&request);
    zelvar::ZMessage reply = ovita2::testing::ReplyTo(request, 67001);
    auto* response = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_task_queue_response);
    response->mutable_rc()->set_code(code);
    response->mutable_rc()->set_msg(error);
    response->set_name(name);
    response->set_ip(ip);
    response->set_port(port);
    host_.ClearLog();
    bool released = ovita2::testing::SendAndRun(host_, Master(), reply);
    EXPECT_FALSE(host_.IsAlive(id));
    last_id_ = id;
    return released;
  }

  TestPeer& Master() { return host_.Peer("10.0.0.1", 9100); }
  std::string Prefix(const char* state) const {
    return "machine:UpdateTaskQueueMachine(" + std::to_string(last_id_) + ")|state:" + state + "|";
  }

  TestHost host_;
  uint32_t last_id_ = 0;
};

TEST_F(UpdateTaskQueueTest, AsksARandomMasterForTheQueueOfThisAgentsNode) {
  zelvar::ZMessage request;
  uint32_t id = StartAndReadRequest(&request);
  EXPECT_TRUE(host_.IsAlive(id));
  EXPECT_EQ(request.head().message_type(), 67000u);
  EXPECT_EQ(request.head().kind(), zelvar::kKindRequest);
  EXPECT_EQ(request.head().src_machine_id(), id);
  EXPECT_EQ(request.head().session().size(), 36u) << "a fresh uuid";
  ASSERT_TRUE(request.body().HasExtension(zelvar::ovita2::get_task_queue_request));
  EXPECT_EQ(request.body().GetExtension(zelvar::ovita2::get_task_queue_request).node_path(),
            "/zelvar/agents/agent-7");
}

TEST_F(UpdateTaskQueueTest, NoMasterEndsTheRunWithALineAndSendsNothing) {
  NameContainer::Instance()->ClearNameValue("MASTER");
  uint32_t id = host_.Start(UpdateTaskQueueCreateMySelf()).id;
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_EQ(host_.LogLines(),
            std::vector<std::string>{"machine:UpdateTaskQueueMachine(" + std::to_string(id) +
                                     ")|state:Entry_Init|No valid master"});
  EXPECT_EQ(host_.LogLinesAt(4).size(), 1u);
}

TEST_F(UpdateTaskQueueTest, QueueIsKnownByItsNameAndKeepsTheAddressItCameWith) {
  EXPECT_TRUE(Answer(0, "", "tq-east", "10.2.0.5", 9200));
  EXPECT_EQ(g_strTQName, "tq-east");
  EXPECT_EQ(g_strTQIP, "10.2.0.5");
  EXPECT_EQ(g_iTQPort, 9200);
  EXPECT_EQ(host_.LogLinesAt(2),
            std::vector<std::string>{Prefix("Entry_WaitTaskQueue") + "my task queue: tq-east, 10.2.0.5:9200"});

  host_.SetLogLevel(2);
  EXPECT_TRUE(Answer(0, "", "tq-east", "10.2.0.99", 9999));
  EXPECT_EQ(g_strTQIP, "10.2.0.5") << "the same name never refreshes the address";
  EXPECT_EQ(g_iTQPort, 9200);
  EXPECT_TRUE(host_.LogLines().empty());

  EXPECT_TRUE(Answer(0, "", "", "10.2.0.6", 9201));
  EXPECT_EQ(g_strTQName, "tq-east");
  EXPECT_EQ(g_strTQIP, "10.2.0.5");
  EXPECT_TRUE(host_.LogLines().empty());

  EXPECT_TRUE(Answer(0, "", "tq-west", "10.3.0.1", 9300));
  EXPECT_EQ(g_strTQName, "tq-west");
  EXPECT_EQ(g_strTQIP, "10.3.0.1");
  EXPECT_EQ(g_iTQPort, 9300);
}

TEST_F(UpdateTaskQueueTest, ErrorReplyKeepsTheQueueAndLogsTheMastersText) {
  Answer(0, "", "tq-east", "10.2.0.5", 9200);
  host_.SetLogLevel(2);
  EXPECT_TRUE(Answer(-3, "agent unknown", "tq-west", "10.3.0.1", 9300));
  EXPECT_EQ(g_strTQName, "tq-east");
  EXPECT_EQ(g_strTQIP, "10.2.0.5");
  EXPECT_EQ(g_iTQPort, 9200);
  EXPECT_EQ(host_.LogLines(),
            std::vector<std::string>{Prefix("Entry_WaitTaskQueue") + "get task queeu failed, agent unknown"});
  EXPECT_EQ(host_.LogLinesAt(4).size(), 1u);
}

TEST_F(UpdateTaskQueueTest, MasterThatNeverAnswersTimesTheMachineOut) {
  zelvar::ZMessage request;
  uint32_t id = StartAndReadRequest(&request);
  host_.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLines().back(), "machine:UpdateTaskQueueMachine(" + std::to_string(id) +
                                         ")|state:Entry_WaitTaskQueue|Timeout occurred, delete myself");
  EXPECT_TRUE(g_strTQIP.empty());
}

}  // namespace
