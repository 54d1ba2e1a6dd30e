// The host's loop run in-process with the probe plug-in: entry points, the
// routine tick, machines, posting and the slots that plug-ins call.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "frame.h"
#include "test_support.h"
#include "zelvar/machine_factory.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message_pool.h"

namespace {

using host_test::ProbeHost;

size_t CountSeen(const probe::Control& control, uint32_t machineId, uint32_t eventType) {
  return std::count_if(control.seen.begin(), control.seen.end(), [&](const probe::Seen& seen) {
    return seen.machine_id == machineId && seen.event_type == eventType && !seen.timeout;
  });
}

TEST(HostLoop, PeeksThenInitsWithTheConfigPathAndFillsEverySlot) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  ASSERT_GE(probe.calls.size(), 2u);
  EXPECT_EQ(probe.calls[0], "OnPeekInterface");
  EXPECT_EQ(probe.calls[1], "OnInit");
  EXPECT_EQ(probe.init_context, fixture.host().Configuration().Path());
  for (int slot = 0; slot < zelvar::kHostSlotCount; ++slot) EXPECT_NE(probe.table[slot], nullptr) << slot;
  // A slot no plug-in uses can still be called.
  probe.table[2]();
  probe.table[43]();

  EXPECT_EQ(fixture.Slot<zelvar::GetLogLevelFn>(zelvar::kSlotGetLogLevel)(), 1);
  EXPECT_EQ(fixture.Slot<zelvar::GetLogFdFn>(zelvar::kSlotGetLogFd)(), fixture.host().Log().Fd());
  EXPECT_STREQ(fixture.Slot<zelvar::GetConfigStringFn>(zelvar::kSlotGetConfigString)("common", "absent", nullptr), "");
  EXPECT_EQ(fixture.Slot<zelvar::GetConfigIntFn>(zelvar::kSlotGetConfigInt)("host", "log_level", 9), 1);
  std::vector<std::string> keys;
  fixture.Slot<zelvar::ListConfigKeysFn>(zelvar::kSlotListConfigKeys)("plugins", "^pro", &keys);
  EXPECT_EQ(keys, std::vector<std::string>{"probe"});
  EXPECT_EQ(fixture.Slot<zelvar::GetEventBaseFn>(zelvar::kSlotGetEventBase)(), fixture.host().Base());
  EXPECT_EQ(fixture.Slot<zelvar::GetPluginHandleFn>(zelvar::kSlotGetPluginHandle)("probe"), &probe);
  EXPECT_EQ(fixture.Slot<zelvar::GetPluginHandleFn>(zelvar::kSlotGetPluginHandle)("zookeeper"), nullptr);

  fixture.Slot<zelvar::LogFn>(zelvar::kSlotLog)(3, "from a plug-in: %d", 42);
  EXPECT_NE(fixture.LogText().find(" INFO from a plug-in: 42\n"), std::string::npos);

  auto isReady = fixture.Slot<zelvar::IsReadyFn>(zelvar::kSlotIsReady);
  EXPECT_TRUE(isReady());
  probe.ready = 0;
  EXPECT_FALSE(isReady());
}

TEST(HostLoop, NowIsTheLoopClockInWholeSeconds) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  const int64_t* now = fixture.Slot<zelvar::GetNowFn>(zelvar::kSlotGetNow)();
  int64_t wall = time(nullptr);
  EXPECT_LE(std::llabs(*now - wall), 1);
}

TEST(HostLoop, RoutineTicksStartTheReturnedMachineAtItsInitialState) {
  ProbeHost fixture("[probe]\nroutine_period_us = 20000\nroutine_machines = 1\n");
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  EXPECT_EQ(fixture.host().RoutinePeriodUs(), 20000u);
  probe::Control& probe = fixture.probe();
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.ended.size() >= 3; }));
  EXPECT_GE(probe.routine_calls, 3);
  for (size_t i = 0; i < 3; ++i) {
    const probe::Seen& seen = probe.seen[i];
    EXPECT_EQ(seen.state, zelvar::kInitialState);
    EXPECT_EQ(seen.event_type, zelvar::kEventStart);
    EXPECT_EQ(seen.machine_id, probe.ended[i]) << "each routine machine ends after its first run";
  }
  // A longer period asked later does not slow the host down.
  fixture.Slot<zelvar::SetRoutinePeriodFn>(zelvar::kSlotSetRoutinePeriod)(1000000);
  EXPECT_EQ(fixture.host().RoutinePeriodUs(), 20000u);
}

TEST(HostLoop, PostToMachineDeliversOnALaterTurnAndDropsForAGoneMachine) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  auto create = fixture.Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage);
  auto post = fixture.Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine);
  EXPECT_EQ(create(123456), nullptr);

  zelvar::StateMachine* machine = create(probe::kProbeMachineType);
  ASSERT_NE(machine, nullptr);
  uint32_t id = machine->GetMachineId();
  auto* first = new zelvar::ZMessage(probe::MakeMessage(1, 1, "first"));
  EXPECT_EQ(post(first, machine, zelvar::kNoMachineId), 0);
  EXPECT_TRUE(probe.seen.empty()) << "never dispatched inside the caller";
  ASSERT_TRUE(fixture.RunUntil([&] { return CountSeen(probe, id, zelvar::kEventMessage) == 1; }));
  EXPECT_EQ(probe.seen.back().session, "first");
  EXPECT_EQ(probe.seen.back().state, zelvar::kInitialState);

  // By id, to the machine now managed by the host; "done" ends it.
  EXPECT_EQ(post(new zelvar::ZMessage(probe::MakeMessage(1, 2, "done")), nullptr, id), 0);
  ASSERT_TRUE(fixture.RunUntil([&] { return !probe.ended.empty(); }));
  EXPECT_EQ(probe.ended[0], id);
  EXPECT_EQ(probe.seen.back().state, 1);

  // The machine is gone: the envelope goes back to the pool.
  size_t pooled = zelvar::MessagePool::Instance()->Size();
  EXPECT_EQ(post(new zelvar::ZMessage(probe::MakeMessage(1, 2, "late")), nullptr, id), -1);
  EXPECT_EQ(zelvar::MessagePool::Instance()->Size(), pooled + 1);
}

TEST(HostLoop, DeliverToMachineHandsARecordOverOrDropsIt) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  zelvar::StateMachine* machine =
      fixture.Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(probe::kProbeMachineType);
  uint32_t id = machine->GetMachineId();
  fixture.Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(
      new zelvar::ZMessage(probe::MakeMessage(1, 1, "adopt")), machine, id);
  auto deliver = fixture.Slot<zelvar::DeliverToMachineFn>(zelvar::kSlotDeliverToMachine);
  static int dropped = 0;
  auto drop = [](void* record) {
    ++dropped;
    delete static_cast<std::string*>(record);
  };
  EXPECT_EQ(deliver(id, new std::string("registry answer"), drop), 0);
  ASSERT_TRUE(fixture.RunUntil([&] { return CountSeen(probe, id, zelvar::kEventPlugin) == 1; }));
  EXPECT_EQ(probe.seen.back().session, "registry answer");
  EXPECT_EQ(dropped, 0);
  EXPECT_EQ(deliver(0x7FFFFFF0u, new std::string("nobody"), drop), -1);
  EXPECT_EQ(dropped, 1);
}

TEST(HostLoop, MachineTimeoutEndsAQuietMachine) {
  ProbeHost fixture("[host]\nmachine_timeout = 1\n");
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  zelvar::StateMachine* machine =
      fixture.Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(probe::kProbeMachineType);
  uint32_t id = machine->GetMachineId();
  fixture.Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(
      new zelvar::ZMessage(probe::MakeMessage(1, 1, "wait")), machine, id);
  ASSERT_TRUE(fixture.RunUntil([&] { return !probe.ended.empty(); }));
  ASSERT_FALSE(probe.seen.empty());
  EXPECT_TRUE(probe.seen.back().timeout);
  EXPECT_EQ(probe.seen.back().status, 1) << "the machine timeout, not a state timeout";
  EXPECT_FALSE(fixture.host().Runtime().IsManaged(id));
}

TEST(HostLoop, AioCompletesOnTheLoopWithResultAndFlow) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  zelvar::StateMachine* machine =
      fixture.Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(probe::kProbeMachineType);
  uint32_t id = machine->GetMachineId();
  int fd = open((fixture.dir().Path() + "/aio.bin").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  char text[] = "hello aio";
  int writeFlow = fixture.Slot<zelvar::StartAioFn>(zelvar::kSlotStartAioWrite)(fd, 9, text, 3, id, machine);
  ASSERT_GT(writeFlow, 0);
  EXPECT_TRUE(probe.seen.empty());
  char back[16] = {};
  int readFlow = fixture.Slot<zelvar::StartAioFn>(zelvar::kSlotStartAioRead)(fd, 16, back, 0, id, nullptr);
  int syncFlow = fixture.Slot<zelvar::StartAioFDSyncFn>(zelvar::kSlotStartAioFDSync)(fd, id);
  int badFlow = fixture.Slot<zelvar::StartAioFDSyncFn>(zelvar::kSlotStartAioFDSync)(-1, id);
  ASSERT_TRUE(fixture.RunUntil([&] { return CountSeen(probe, id, zelvar::kEventAio) == 4; }));
  close(fd);
  ASSERT_EQ(probe.seen.size(), 4u);
  EXPECT_EQ(probe.seen[0].flow_no, static_cast<uint32_t>(writeFlow));
  EXPECT_EQ(probe.seen[0].status, 9);
  EXPECT_EQ(probe.seen[1].flow_no, static_cast<uint32_t>(readFlow));
  EXPECT_EQ(probe.seen[1].status, 12);
  EXPECT_EQ(std::string(back, 12), std::string("\0\0\0hello aio", 12));
  EXPECT_EQ(probe.seen[2].flow_no, static_cast<uint32_t>(syncFlow));
  EXPECT_EQ(probe.seen[2].status, 0);
  EXPECT_EQ(probe.seen[3].flow_no, static_cast<uint32_t>(badFlow));
  EXPECT_EQ(probe.seen[3].status, -1);
  EXPECT_EQ(probe.seen[3].error_number, EBADF);
}

TEST(HostLoop, ShutdownUnloadsBeforeMachinesGo) {
  auto fixture = std::make_unique<ProbeHost>();
  ASSERT_TRUE(fixture->ok()) << fixture->error();
  probe::Control& probe = fixture->probe();
  zelvar::StateMachine* machine =
      fixture->Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(probe::kProbeMachineType);
  uint32_t id = machine->GetMachineId();
  fixture->Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(
      new zelvar::ZMessage(probe::MakeMessage(1, 1, "stay")), machine, id);
  fixture->host().Shutdown();
  EXPECT_EQ(probe.calls.back(), "OnUnload");
  EXPECT_EQ(probe.ended, std::vector<uint32_t>{id}) << "the queued event was dropped with its machine";
  EXPECT_EQ(zelvar::MachinePool::Instance()->GetMachine(id), nullptr);
  EXPECT_EQ(zelvar_host::Host::Current(), nullptr);
  // Slots called after shutdown answer harmlessly.
  EXPECT_EQ(fixture->Slot<zelvar::ConnectToFn>(zelvar::kSlotConnectTo)("127.0.0.1", 1, 0), nullptr);
  EXPECT_STREQ(fixture->Slot<zelvar::GetConfigStringFn>(zelvar::kSlotGetConfigString)("a", "b", nullptr), "");
}

}  // namespace
