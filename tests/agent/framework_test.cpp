// The machines' common vocabulary: sends inside the process and back over a
// connection, flow numbers, and the database request.
#include <tuple>

#include "agent_test.h"
#include "framework/bev_machine_util.h"
#include "framework/host_api.h"
#include "jobs/update_jobs.h"
#include "zelvar/dorvan.pb.h"
#include "zelvar/machine_factory.h"
#include "zelvar/machine_pool.h"

namespace ovita2 {
namespace testing {
namespace {

using Framework = AgentTest;

TEST_F(Framework, SendsReachTheRightMachineOrGoBackOverTheConnection) {
  EchoMachine machine;
  EchoMachine& receiver = *new EchoMachine();  // the runtime takes it over with the message
  zelvar::ZMessage message;
  message.mutable_head()->set_message_type(4243199);
  EXPECT_EQ(machine.SendInternalResponse(message, 0, receiver.GetMachineId()), 0);
  EXPECT_EQ(host_.LastPostedId(), receiver.GetMachineId());
  EXPECT_EQ(machine.SendInternalResponse(message, 0, receiver.GetMachineId() + 1000), -1);
  EXPECT_EQ(machine.SendInternalRequest(message), -1) << "no machine serves the type";
  message.mutable_head()->set_message_type(EchoMachine::kType);
  EXPECT_EQ(machine.SendInternalRequest(message), 0);
  EXPECT_EQ(host_.LastPostedId(), zelvar::kNoMachineId) << "a new machine is named by its pointer only";

  // A response goes to the machine that asked, else back over the connection it came in on.
  EchoMachine& requester = *new EchoMachine();
  TestPeer& peer = host_.Accept("10.0.0.5", 7000);
  machine.SetReplyConnection(peer.ConnA(), peer.ConnB());
  message.mutable_head()->set_flow_no(42);
  EXPECT_EQ(machine.SendResponse(message), 0);
  zelvar::ZMessage sent;
  ASSERT_TRUE(peer.ReadFrame(&sent));
  EXPECT_EQ(sent.head().flow_no(), 42u);
  machine.SetRequesterId(requester.GetMachineId());
  EXPECT_EQ(machine.SendResponse(message), 0);
  EXPECT_EQ(host_.LastPostedId(), requester.GetMachineId());
  EXPECT_EQ(peer.PendingBytes(), 0u);
  peer.Close();
  machine.SetRequesterId(zelvar::kNoMachineId);
  EXPECT_EQ(machine.SendResponse(message), -1);
  host_.RunPending();
}

TEST_F(Framework, ARegisteredMachineIsAlsoBuiltInMemoryItsCallerOwns) {
  alignas(UpdateJobsMachine) unsigned char memory[sizeof(UpdateJobsMachine)];
  const zelvar::MachineFactory& factory = *zelvar::MachineFactory::Instance();
  zelvar::StateMachine* machine = factory.CreateMachineByAddr(UpdateJobsMachine::kType, memory);
  ASSERT_EQ(static_cast<void*>(machine), static_cast<void*>(memory));
  EXPECT_STREQ(machine->MachineName(), "UpdateJobsMachine");
  machine->~StateMachine();
  EXPECT_EQ(factory.CreateMachineByAddr(UpdateJobsMachine::kType, nullptr), nullptr);
}

TEST_F(Framework, LinesFromTheHostsThresholdUpAndSqlAndBlobRequestsCarryTheWholeTextAndTheFlagTurnedRound) {
  EchoMachine machine;
  host_.SetLogLevel(2);
  HostLog(1, "hidden %d", 1);
  MachineLog(2, &machine, "shown %d", 2);
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"machine:EchoMachine(" + std::to_string(machine.GetMachineId()) +
                                                       ")|state:Entry_Init|shown 2"});
  std::string longText(200000, 'x');  // past one block of the output stream
  unsigned first = machine.SendSql("10.2.0.1", 9500, "stats", 1, "select '%s' -- %d", longText.c_str(), 7);
  unsigned second = machine.SendSql("10.2.0.1", 9500, "stats", 0, "%s", "short");
  EXPECT_EQ(second, first + 1);
  const std::string fullBuffer(machine.FormatCapacity(), 'f');  // no room left for the terminator
  machine.SendSql("10.2.0.1", 9500, "stats", 0, "%s", fullBuffer.c_str());
  zelvar::ZMessage sent;
  const std::string longSql = "select '" + longText + "' -- 7";
  for (auto expected : {std::make_tuple(first, 0u, longSql), std::make_tuple(second, 1u, std::string("short")),
                        std::make_tuple(second + 1, 1u, fullBuffer)}) {
    ASSERT_TRUE(host_.Peer("10.2.0.1", 9500).ReadFrame(&sent));
    EXPECT_EQ(sent.head().flow_no(), std::get<0>(expected));
    const auto& request = sent.body().GetExtension(zelvar::dorvan::execute_sql_request);
    EXPECT_EQ(request.db() + std::to_string(request.flag()) + request.sql(),
              "stats" + std::to_string(std::get<1>(expected)) + std::get<2>(expected));
  }
  machine.ReplaceBlob("10.2.0.1", 9500, "cfg", std::string("\0b", 2), "k=%d", 3);
  ASSERT_TRUE(host_.Peer("10.2.0.1", 9500).ReadFrame(&sent));
  const auto& blob = sent.body().GetExtension(zelvar::dorvan::replace_blob_request);
  EXPECT_EQ(blob.name() + "|" + blob.text() + "|" + blob.blob(), std::string("cfg|k=3|\0b", 10));
}

}  // namespace
}  // namespace testing
}  // namespace ovita2
