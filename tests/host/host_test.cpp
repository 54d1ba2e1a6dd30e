// zelvar-host: its configuration reader, the loop run in-process with the
// probe plug-in, and the real binary.
#include <fcntl.h>
#include <event2/bufferevent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "host.h"
#include "local_system.h"
#include "probe_control.h"
#include "zelvar/frame.h"
#include "zelvar/long_action.h"
#include "zelvar/message_pool.h"
#include "zelvar/string_util.h"

namespace {

using namespace ovita2::testing;
using namespace std::string_literals;

// A host loop in this process with the probe loaded as "probe", logging at
// level 1 to host.log in its folder; `extra` is appended to the configuration.
struct ProbeHost {
  explicit ProbeHost(const std::string& extra = std::string()) {
    std::string config = "[host]\nlog_file = host.log\nlog_level = 1\n[plugins]\nprobe = " PROBE_PLUGIN_PATH "\n";
    if (host.Init(dir.Write("host.ini", config + extra), &error))
      control = static_cast<probe::Control*>(host.GetPluginHandle("probe"));
  }
  probe::Control& probe() { return *control; }
  bool RunUntil(const std::function<bool()>& done) { return host.RunUntil(done, 30.0); }
  template <typename Fn>
  Fn Slot(zelvar::HostSlot slot) const { return zelvar::HostSlotAs<Fn>(host.Table(), slot); }

  TempDir dir;  // outlives the host, which logs here until shut down
  zelvar_host::Host host;
  probe::Control* control = nullptr;
  std::string error;
};
#define SLOT(fixture, name) (fixture).Slot<zelvar::name##Fn>(zelvar::kSlot##name)

TEST(HostConfig, ReadsValuesOrNamesTheBadLine) {
  const std::pair<std::string, std::string> cases[] = {  // [c] k as text and number (7 when none), or the error
      {"[c]\nk = /ovita2/a-1.b\n", "/ovita2/a-1.b 7"}, {"[c]\nk = -42\nx = 1\n", "-42 -42"}, {"[c]\nk = 4x\n", "4x 7"},
      {"[c]\nother = 1\n", " 7"}, {"[c]\nk = a\nk = b\n", "a\nb 7"}, {"[c]\nk = 2147483648\n", "2147483648 7"},
      {"[c]\nk = " + std::string(300, 'x') + "\n", "t.ini:2: line is longer than 199 characters"},
  };
  for (const auto& c : cases) {
    zelvar_host::Config config;
    std::string got;
    if (config.LoadString(c.first, "t.ini", &got))
      got = config.GetString("c", "k", nullptr) + (" " + std::to_string(config.GetInt("c", "k", 7)));
    EXPECT_EQ(got.substr(0, c.second.size()), c.second) << c.first;
  }
  zelvar_host::Config reloaded;
  std::string error;
  ASSERT_TRUE(reloaded.LoadString("[c]\nk = 1\n", "t.ini", &error));
  EXPECT_FALSE(reloaded.LoadString("[c]\nk = 2\nnot a setting\n", "t.ini", &error));
  EXPECT_EQ(reloaded.GetInt("c", "k", 7), 7) << "a file with a bad line leaves no value, of its own or of before";
}

TEST(HostLog, WritesStampedLinesAtItsThresholdFallsBackToStandardErrorAndLeavesStampingToTheJournal) {
  TempDir dir;
  zelvar_host::Logger log;
  std::string error;
  ASSERT_TRUE(log.Open(dir.Path() + "/h.log", &error)) << error;
  log.Log(zelvar_host::Logger::kDebug, "hidden %d", 1);
  log.Log(zelvar_host::Logger::kError, "shown %d\n", 2);  // a line's own newline is not doubled
  log.Log(zelvar_host::Logger::kError, "%s", std::string(3000, 'x').c_str());  // longer than a stack line
  log.Close();
  const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ERROR )";
  const std::string logged = ReadFile(dir.Path() + "/h.log");
  const size_t second = logged.find('\n') + 1, stampLength = 36;
  EXPECT_TRUE(std::regex_match(logged.substr(0, second), std::regex(stamp + "shown 2\n")));
  EXPECT_TRUE(std::regex_match(logged.substr(second, stampLength), std::regex(stamp)));
  EXPECT_EQ(logged.substr(second + stampLength), std::string(3000, 'x') + "\n");
  EXPECT_EQ(log.Fd(), 2) << "a closed log must not write into whatever file takes its descriptor next";

  int standardError = dup(2), journal = open((dir.Path() + "/journal").c_str(), O_WRONLY | O_CREAT, 0600);
  struct stat stream;
  dup2(journal, 2), fstat(2, &stream);
  setenv("JOURNAL_STREAM", (std::to_string(stream.st_dev) + ":" + std::to_string(stream.st_ino)).c_str(), 1);
  ASSERT_TRUE(log.Open("", &error));
  log.Log(zelvar_host::Logger::kError, "to the journal");
  dup2(standardError, 2), close(standardError), close(journal), unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(ReadFile(dir.Path() + "/journal"), "<3>to the journal\n") << "the journal stamps its lines itself";
}

zelvar::ZMessage* Envelope(const std::string& session) {
  auto* message = new zelvar::ZMessage();
  message->mutable_head()->set_message_type(probe::kProbeMachineType);
  message->mutable_head()->set_session(session);
  return message;
}
std::string Frame(const std::string& session) {
  return zelvar::EncodeFrame(*std::unique_ptr<zelvar::ZMessage>(Envelope(session)));
}

// A probe machine made through the slot, which the host adopts with a first message carrying `session`.
zelvar::StateMachine* AdoptedProbe(ProbeHost& fixture, const std::string& session = "adopt") {
  zelvar::StateMachine* machine = SLOT(fixture, CreateMachineForMessage)(probe::kProbeMachineType);
  SLOT(fixture, PostToMachine)(Envelope(session), machine, 0);
  return machine;
}

TEST(HostLoop, StartsPluginsWithTheConfigPathServesSlotsAndTicksAtTheSmallestPeriodAsked) {
  ProbeHost fixture("[probe]\nroutine_period_us = 20000\n");
  ASSERT_TRUE(fixture.control) << fixture.error;
  probe::Control& probe = fixture.probe();
  EXPECT_EQ(probe.calls, (std::vector<std::string>{"OnPeekInterface", "OnInit"}));
  EXPECT_EQ(probe.init_context, fixture.host.Configuration().Path());
  EXPECT_NE(ReadFile(fixture.dir.Path() + "/host.log").find("loaded plug-in \"probe\" from " PROBE_PLUGIN_PATH),
            std::string::npos);
  EXPECT_EQ(SLOT(fixture, GetLogLevel)() + SLOT(fixture, GetConfigInt)("host", "log_level", 9), 2);
  std::vector<std::string> keys;
  SLOT(fixture, ListConfigKeys)("plugins", ".+", &keys);
  EXPECT_EQ(keys, std::vector<std::string>{"probe"});

  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.ended.size() >= 5; }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "not one second a tick";
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(std::make_pair(probe.seen[i].state, probe.seen[i].event_type), std::make_pair(-1, 0u));
    EXPECT_EQ(probe.seen[i].machine_id, probe.ended[i]) << "a routine machine starts at once";
  }
  SLOT(fixture, SetRoutinePeriod)(1000000);
  SLOT(fixture, SetRoutinePeriod)(0);  // would spin the loop
  EXPECT_EQ(fixture.host.RoutinePeriodUs(), 20000u);
  EXPECT_TRUE(SLOT(fixture, IsReady)()) << "a plug-in that does not say otherwise is ready";
}

TEST(HostLoop, EventsReachTheirMachineOnALaterTurnAndAreDroppedForAGoneOne) {
  ProbeHost fixture("[host]\nmachine_timeout = 1\n");
  ASSERT_TRUE(fixture.control) << fixture.error;
  probe::Control& probe = fixture.probe();
  EXPECT_EQ(SLOT(fixture, CreateMachineForMessage)(123456), nullptr);
  zelvar::StateMachine* machine = AdoptedProbe(fixture, "first");
  uint32_t id = machine->GetMachineId(), quiet = AdoptedProbe(fixture)->GetMachineId();
  EXPECT_EQ(SLOT(fixture, DeliverToMachine)(id, new std::string("record"), [](void*) { ADD_FAILURE(); }), 0);
  int fd = open((fixture.dir.Path() + "/aio").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  char text[] = "hello aio", back[16] = {};
  auto aio = [&](zelvar::HostSlot slot) { return fixture.Slot<zelvar::StartAioFn>(slot); };
  int flows[] = {aio(zelvar::kSlotStartAioWrite)(fd, 9, text, 3, id, machine),
                 aio(zelvar::kSlotStartAioRead)(fd, 16, back, 0, id, nullptr), SLOT(fixture, StartAioFDSync)(-1, id)};
  EXPECT_EQ(SLOT(fixture, PostToMachine)(Envelope("done"), nullptr, id), 0);
  EXPECT_TRUE(probe.seen.empty()) << "never dispatched inside the caller";
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.ended.size() == 2; }));
  close(fd);
  std::string seen;  // is it `id`, state, event type, flow, text, status
  for (const probe::Seen& s : probe.seen)
    seen += zelvar::FormatString("%d:%d:%u:%u:%s:%ld ", s.machine_id == id, s.state, s.event_type, s.flow_no,
                                 s.text.c_str(), s.status);
  EXPECT_EQ(seen, zelvar::FormatString("1:-1:1:0:first:0 0:-1:1:0:adopt:0 1:1:4:0:record:0 1:1:3:%d:0:9 "
                                       "1:1:3:%d:0:12 1:1:3:%d:%d:-1 1:1:1:0:done:0 ",
                                       flows[0], flows[1], flows[2], EBADF));
  EXPECT_TRUE(flows[0] != flows[1] && flows[1] != flows[2]) << "each file action has its own flow number";
  EXPECT_EQ(std::string(back, 12), std::string("\0\0\0hello aio", 12));
  EXPECT_EQ(probe.ended, (std::vector<uint32_t>{id, quiet})) << "the quiet one ended on its machine timeout";

  size_t pooled = zelvar::MessagePool::Instance()->Size();
  EXPECT_EQ(SLOT(fixture, PostToMachine)(Envelope("late"), nullptr, id), -1);
  EXPECT_EQ(zelvar::MessagePool::Instance()->Size(), pooled + 1) << "the envelope goes back to the pool";
  static int dropped = 0;
  EXPECT_EQ(SLOT(fixture, DeliverToMachine)(id, &dropped, [](void*) { ++dropped; }), -1);
  EXPECT_EQ(dropped, 1);
}

TEST(HostConnections, DeliverSplitAndBatchedFramesCloseOnBadOrOversizedInputAndReuseOutbound) {
  int port = FreeLoopbackPort();
  ProbeHost fixture("[network]\nlisten-ip = 127.0.0.1\ninput_limit = 4096\nlisten-port = " + std::to_string(port));
  ASSERT_TRUE(fixture.control) << fixture.error;
  probe::Control& probe = fixture.probe();
  int client = ConnectLoopback(port);
  ASSERT_TRUE(SendAll(client, Frame("a") + Frame("b")));
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.seen.size() == 2; })) << "both frames of one read, at once";
  for (char byte : Frame("c")) {
    ASSERT_TRUE(SendAll(client, std::string(1, byte)));
    fixture.host.RunUntil([] { return false; }, 0.002);
  }
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.seen.size() == 3; }));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(probe.seen[i].text + std::to_string(probe.seen[i].state), "abc"[i] + "-1"s);
  close(client);
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.disconnects.size() == 1; }));
  EXPECT_EQ(probe.disconnects, probe.connects);
  EXPECT_EQ(SLOT(fixture, GetConnectionBev)(probe.connects[0].first, probe.connects[0].second), nullptr);

  unsigned char huge[4];
  zelvar::PutFramePrefix(1 << 20, huge);  // more than the input limit, sent in pieces
  for (std::string bad : {std::string("\0\0\0\3\xff\xff\xff", 7), std::string((char*)huge, 4)}) {
    int fd = ConnectLoopback(port);
    SendAll(fd, bad);
    EXPECT_TRUE(fixture.RunUntil([&] { return !SendAll(fd, std::string(1024, 'z')) || !ReadAvailable(fd, &bad); }));
    close(fd);
  }
  EXPECT_EQ(probe.disconnects.size(), 3u);
  EXPECT_NE(ReadFile(fixture.dir.Path() + "/host.log").find("over the input limit of 4096"), std::string::npos);

  auto connectTo = [&] { return SLOT(fixture, ConnectTo)("127.0.0.1", port, 0); };
  bufferevent* out = connectTo();
  EXPECT_EQ(connectTo(), out) << "one connection per peer, while connecting";
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.connects.size() == 5; }));  // both of its ends
  EXPECT_EQ(connectTo(), out) << "and once connected";
  bufferevent_write(out, "\0\0\0\3\xff\xff\xff", 7);  // the far end refuses it, so both ends close
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.disconnects.size() == 5; }));
  connectTo();
  EXPECT_TRUE(fixture.RunUntil([&] { return probe.connects.size() == 7; })) << "a closed peer is connected anew";
}

TEST(HostConnections, AllShareOneInputBoundIdleOnesAreCutAndAClosedOneStillSendsItsQueue) {
  int port = FreeLoopbackPort();
  ProbeHost fixture("[network]\nlisten-ip = 127.0.0.1\ntotal_input_limit = 3000\nidle_timeout = 1\nlisten-port = " +
                    std::to_string(port) + "\n[probe]\nflood_bytes = 33554432\n");
  ASSERT_TRUE(fixture.control) << fixture.error;
  std::string sink, log = fixture.dir.Path() + "/host.log";
  auto closedByHost = [&](int fd) { return fixture.RunUntil([&] { return !ReadAvailable(fd, &sink); }); };
  int silent = ConnectLoopback(port), spoke = ConnectLoopback(port), small = ConnectLoopback(port);
  int large = ConnectLoopback(port);
  SendAll(spoke, Frame("spoke"));
  SendAll(small, Frame("small"));
  ASSERT_TRUE(fixture.RunUntil([&] { return fixture.probe().seen.size() == 2; }));
  SendAll(small, "\0\1\0\0"s + std::string(1000, 'a'));  // parts of 64 KiB frames
  SendAll(large, "\0\1\0\0"s + std::string(2500, 'b'));
  EXPECT_TRUE(closedByHost(large) && ReadAvailable(small, &sink)) << "the largest holder goes, at once";
  EXPECT_TRUE(closedByHost(small) && closedByHost(silent)) << "a part that stays a part, and a peer that never speaks";
  EXPECT_TRUE(ReadAvailable(spoke, &sink)) << "a peer that spoke keeps its idle connection";
  SendAll(spoke, Frame("again"));
  EXPECT_TRUE(fixture.RunUntil([&] { return fixture.probe().seen.size() == 3; }));
  EXPECT_NE(ReadFile(log).find("over the total input limit of 3000"), std::string::npos);

  int flood = ConnectLoopback(port), gone = ConnectLoopback(port);
  SendAll(flood, Frame("flood"));  // 32 MiB answered, then the probe refuses the frame
  SendAll(gone, Frame("flood"));
  close(gone);
  std::string expected(33554432, '\0');
  sink.clear();
  ASSERT_TRUE(closedByHost(flood));
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = static_cast<char>(i % 251);
  EXPECT_TRUE(sink == expected) << sink.size() << " bytes reached the peer";
  EXPECT_TRUE(fixture.RunUntil([&] { return ReadFile(log).find(" were not sent: ") != std::string::npos; }));
  int asking = ConnectLoopback(port);
  SendAll(asking, Frame("answer"));
  sink.clear();
  EXPECT_TRUE(fixture.RunUntil([&] { return ReadAvailable(asking, &sink) && sink.size() == expected.size(); }))
      << "an answer the socket cannot take at once still arrives whole: " << sink.size();
  for (int fd : {silent, spoke, small, large, flood, asking}) close(fd);
}

// Peers that never finish a message: the host cuts each once, on time, however
// it drips, and goes on serving the peer that speaks.
TEST(HostConnections, SilentAndDrippingPeersAreCutOnceEachWhileAnotherIsServed) {
  int port = FreeLoopbackPort();
  ProbeHost fixture("[network]\nlisten-ip = 127.0.0.1\nidle_timeout = 2\nlisten-port = " + std::to_string(port));
  ASSERT_TRUE(fixture.control) << fixture.error;
  std::vector<int> silent;
  for (int i = 0; i < 1000; ++i) {
    silent.push_back(ConnectLoopback(port));
    if (i % 50 == 0) fixture.host.RunUntil([] { return false; }, 0.01);  // accepts, so the backlog never fills
  }
  int drip = ConnectLoopback(port), speaker = ConnectLoopback(port);
  SendAll(drip, "\0\0\1\0"s);  // a 256-byte body, one byte every half second
  std::string sink;
  for (int step = 0; step < 12; ++step) {
    SendAll(drip, "x"), SendAll(speaker, Frame("s"));
    fixture.host.RunUntil([] { return false; }, 0.5);
  }
  EXPECT_EQ(fixture.probe().seen.size(), 12u) << "the speaker is served throughout";
  EXPECT_FALSE(ReadAvailable(drip, &sink)) << "a drip does not hold its connection";
  size_t open = 0;
  for (int fd : silent) open += ReadAvailable(fd, &sink), close(fd);
  EXPECT_EQ(open, 0u);
  EXPECT_EQ(Occurrences(ReadFile(fixture.dir.Path() + "/host.log"), " closed: "), 1001u)
      << "one line per connection, none per byte";
  close(drip), close(speaker);
}

void RunLongAction(ProbeHost& fixture, uint32_t id, uint32_t flow, const std::string& command,
                   const char* name = "ExecuteShell2") {
  zelvar::ExecuteShell2 action(name);
  action.Param(zelvar::ExecuteShell2::kCommandParam, command);
  EXPECT_EQ(SLOT(fixture, StartLongAction)(&action, id, flow), 0);
}

// The records by flow number once `count` long actions answered (flow 0 is the adopting message).
std::map<uint32_t, probe::Seen> LongActionRecords(ProbeHost& fixture, size_t count) {
  std::map<uint32_t, probe::Seen> byFlow;
  fixture.RunUntil([&] {
    for (const probe::Seen& seen : fixture.probe().seen) byFlow[seen.flow_no] = seen;
    return byFlow.size() >= count + 1;
  });
  byFlow.erase(0);
  return byFlow;
}

// Whether a live process of this test's session has exactly `command` as its command line.
bool SessionRuns(const std::string& command) { return std::system(("pgrep -s 0 -xf '" + command + "'").c_str()) == 0; }

TEST(HostLongActions, RecordsCarryOutputStatusAndTheHostsWordsWithinTheLimitsAndLeaveNothingBehind) {
  int descriptorsBefore = CountOpenDescriptors();
  {
    ProbeHost fixture("[long_action]\ntime_limit = 3\noutput_limit = 1000\nmax_children = 1\n");
    ASSERT_TRUE(fixture.control) << fixture.error;
    uint32_t id = AdoptedProbe(fixture)->GetMachineId();
    RunLongAction(fixture, id, 1, "sleep 0.3; echo out; echo err >&2");
    RunLongAction(fixture, id, 2, "cat; ls /proc/$$/fd; exit 3");  // no input, nothing but 0, 1 and 2 open
    RunLongAction(fixture, id, 3, "echo never", "NoSuchAction");
    RunLongAction(fixture, id, 4, "sleep 60 & echo $!; while :; do :; done");
    RunLongAction(fixture, id, 5, "head -c 100000000 /dev/zero | tr '\\0' y");
    RunLongAction(fixture, id, 6, "kill -9 $$");
    RunLongAction(fixture, id, 7, "for i in $(seq 200); do sleep 77.75 >/dev/null 2>&1 & done; echo 1");
    auto records = LongActionRecords(fixture, 7);
    std::string order, summary;  // summary: is it `id`, status, and but for the time limit's pid, the text
    for (const probe::Seen& seen : fixture.probe().seen) order += std::to_string(seen.flow_no);
    EXPECT_EQ(order, "03124567") << "one runs at a time, the others wait in order";
    for (auto& [flow, r] : records)
      summary += std::to_string(r.machine_id == id) + std::to_string(r.status) + (flow == 4 ? " " : ":" + r.text + " ");
    EXPECT_EQ(summary, "10:out\n|err\n 13:0\n1\n2\n|exit status 3 1-4:|unknown long action \"NoSuchAction\" 1-2 1-3:" +
                           std::string(1000, 'y') + "|output passed the limit of 1000 bytes, process group killed " +
                           "1137:|killed by signal 9 (SIGKILL) 10:1\n| ");
    EXPECT_TRUE(fixture.RunUntil([] { return !SessionRuns("sleep 77.75"); })) << "its background jobs end with it";
    std::string background = "/proc/" + records[4].text.substr(0, records[4].text.find('\n')) + "/stat";
    EXPECT_TRUE(fixture.RunUntil([&] {
      std::string stat = ReadFile(background);
      return stat.empty() || stat[stat.rfind(')') + 2] == 'Z';
    })) << "the time limit killed the command's whole group";
  }
  EXPECT_EQ(CountZombieChildren(), 0);
  EXPECT_EQ(CountOpenDescriptors(), descriptorsBefore);
}

TEST(HostLongActions, AThousandDueCommandsRunAtOnceUnderTheDefaultCapAndShutdownLeavesNothingBehind) {
  int descriptorsBefore = CountOpenDescriptors();
  auto fixture = std::make_unique<ProbeHost>("[long_action]\ntime_limit = 120\n");
  ASSERT_TRUE(fixture->control) << fixture->error;
  probe::Control& probe = fixture->probe();
  uint32_t id = AdoptedProbe(*fixture)->GetMachineId();
  // Each command says it started, then waits for a line on the gate: none
  // ends before all thousand run.
  std::string gate = fixture->dir.Path() + "/gate", started = fixture->dir.Path() + "/started";
  ASSERT_TRUE(mkfifo(gate.c_str(), 0600) == 0 && mkdir(started.c_str(), 0700) == 0);
  for (uint32_t flow = 1; flow <= 1000; ++flow) {
    std::string name = std::to_string(flow);
    RunLongAction(*fixture, id, flow, "exec 3<>" + gate + "; : >" + started + "/" + name + "; read x <&3; echo " +
                                          name);
  }
  auto startedCount = [&] { return std::distance(std::filesystem::directory_iterator(started), {}); };
  EXPECT_TRUE(fixture->RunUntil([&] { return startedCount() == 1000; })) << startedCount() << " started";
  int opener = open(gate.c_str(), O_RDWR);
  ASSERT_EQ(write(opener, std::string(1000, '\n').data(), 1000), 1000);
  auto records = LongActionRecords(*fixture, 1000);
  close(opener);
  ASSERT_EQ(records.size(), 1000u);
  for (auto& r : records) ASSERT_EQ(r.second.text, std::to_string(r.first) + "\n|") << r.first;
  RunLongAction(*fixture, id, 1001, "sleep 60");
  AdoptedProbe(*fixture);
  size_t seen = probe.seen.size();
  fixture.reset();
  EXPECT_EQ(probe.seen.size(), seen) << "nothing is delivered during shutdown";
  EXPECT_EQ(probe.calls.back(), "OnUnload");
  EXPECT_EQ(probe.ended.size(), 2u) << "machines end after their plug-in was told";
  EXPECT_EQ(CountZombieChildren(), 0);
  EXPECT_EQ(CountOpenDescriptors(), descriptorsBefore);
}

// zelvar-host with `args`, standard error to `err`, after `shellFirst` (say, a ulimit).
ChildProcess StartHost(const std::string& args, const std::string& err, const std::string& shellFirst = "") {
  return ChildProcess(shellFirst + "exec " ZELVAR_HOST_PATH " " + args + " 2>" + err);
}

TEST(HostBinary, StartUpErrorsFailTheExitOnOneLineAndARunningHostReopensItsLogOnSighupAndStopsOnSigterm) {
  TempDir dir;
  std::string err = dir.Path() + "/err", log = dir.Path() + "/run.log";
  int taken = 0, listener = ListenLoopback(&taken);
  std::string busy = "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(taken) +
                     "\n[plugins]\np = " PROBE_PLUGIN_PATH "\n";
  std::string longPaths;
  for (int i = 0; i < 5000; ++i) longPaths += "p = " + std::string(150, 'x') + "\n";
  const std::pair<std::string, std::string> cases[] = {
      {dir.Path() + "/absent.ini", "cannot read configuration file " + dir.Path() + "/absent.ini: No such file"},
      {dir.Write("syntax.ini", "[host]\n\n[plugins\n"), dir.Path() + "/syntax.ini:3: syntax error"},
      {dir.Write("range.ini", "[host]\nlog_level = 9\n"), dir.Path() + "/range.ini: [host] log_level = \"9\" must be"},
      {dir.Write("lib.ini", "[plugins]\nagent = no.so"), "cannot load plug-in \"agent\": " + dir.Path() + "/no.so:"},
      {dir.Write("busy.ini", busy), "cannot listen on 127.0.0.1:" + std::to_string(taken) + ": Address already in use"},
      {dir.Write("init.ini", "[host]\nlog_file = h\n[plugins]\np = " PROBE_PLUGIN_PATH "\n[probe]\ninit_result = 5"),
       "plug-in \"p\" failed to start: OnInit returned 5: probe: told to fail\n"},
      {"/tmp", "configuration file /tmp is not a regular file"},
      {dir.Write("big.ini", std::string(1 << 20, '#') + "\n"), "configuration file " + dir.Path() + "/big.ini is"},
      {dir.Write("nul.ini", "[host]\n\0\0"s), dir.Path() + "/nul.ini:2: NUL byte"},
      {dir.Write("empty.ini", ""), dir.Path() + "/empty.ini: [plugins] names no plug-in"},
      {dir.Write("long.ini", "[plugins]\n" + longPaths), "cannot load plug-in \"p\": " + dir.Path() + "/xxx"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(StartHost("-c " + c.first, err).Wait(), 1);
    std::string text = ReadFile(err);
    EXPECT_EQ(text.substr(0, c.second.size() + 13) + std::to_string(std::count(text.begin(), text.end(), '\n')),
              "zelvar-host: " + c.second + "1");
    EXPECT_LT(text.size(), 400u) << "an error line quotes at most the start of a value";
  }
  close(listener);
  EXPECT_EQ(StartHost("", err).Wait(), 2);
  EXPECT_EQ(ReadFile(err).rfind("Usage: zelvar-host -c FILE\n", 0), 0u);

  auto host = StartHost("-c " + dir.Write("run.ini", "[host]\nlog_file = run.log\n[plugins]\np = " PROBE_PLUGIN_PATH),
                        err);
  ASSERT_TRUE(Eventually([&] { return ReadFile(log).find("zelvar-host started") != std::string::npos; }));
  ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
  kill(host.Pid(), SIGHUP);
  ASSERT_TRUE(Eventually([&] { return !ReadFile(log).empty(); }));
  kill(host.Pid(), SIGTERM);
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(ReadFile(err), "");
  std::regex stop(".{29} INFO log file reopened\n[^]*signal 15 \\(SIGTERM\\)\n[^]*probe unloaded\n[^]*host stopped\n");
  EXPECT_TRUE(std::regex_match(ReadFile(log), stop)) << ReadFile(log);
}

TEST(HostBinary, OutOfDescriptorsTheListenerPausesOnceServesAgainOnceSomeCloseAndAKillTakesItsCommandAlong) {
  TempDir dir;
  int port = FreeLoopbackPort();
  std::string err = dir.Path() + "/err", log = dir.Path() + "/run.log", paused = "listener paused";
  std::string config = "[host]\nlog_file = run.log\nlog_level = 2\n[network]\nlisten-ip = 127.0.0.1\nlisten-port = " +
                       std::to_string(port) + "\n[plugins]\np = " PROBE_PLUGIN_PATH "\n[probe]\ncommand = exec sleep 77.76";
  auto host = StartHost("-c " + dir.Write("run.ini", config), err, "ulimit -n 40; ");
  ASSERT_TRUE(Eventually([&] { return ReadFile(log).find("zelvar-host started") != std::string::npos; }));
  std::vector<int> clients;
  for (int i = 0; i < 60; ++i) clients.push_back(ConnectLoopback(port));
  ASSERT_TRUE(Eventually([&] { return ReadFile(log).find(paused) != std::string::npos; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two more tries at the limit
  std::string text = ReadFile(log);
  EXPECT_EQ(text.find(paused), text.rfind(paused)) << text;
  EXPECT_LT(ReadFile(err).size(), 200u);
  for (int fd : clients) close(fd);
  EXPECT_TRUE(Eventually([&] { return ReadFile(log).find("accepting connections again") != std::string::npos; }));
  ASSERT_TRUE(SessionRuns("sleep 77.76"));
  kill(host.Pid(), SIGKILL);
  host.Wait();
  EXPECT_TRUE(Eventually([] { return !SessionRuns("sleep 77.76"); })) << "a host killed outright takes it along";
}

TEST(HostBinary, CheckConfigNamesWhatNothingReadsWithTheNearestKnownNameAndStartsNothing) {
  TempDir dir;
  int taken = 0, listener = ListenLoopback(&taken);  // a check that opened the port would fail on it
  const std::string agent = "[plugins]\nagent = " PLUGIN_LIB_DIR "libovita2_agent.so\n",
                    named = "[common]\nagentname = a\nmyname = /m\n", busy = std::to_string(taken);
  auto example = [](const char* name) {  // its libraries are in the build's folder here
    return std::regex_replace(ReadFile(HOST_EXAMPLES_DIR + std::string(name)), std::regex("\\.\\./lib/"),
                              PLUGIN_LIB_DIR);
  };
  const std::pair<std::string, std::string> cases[] = {  // file, the lines after "PATH: "
      {agent + named + "[hsot]\nlog_level = 3\n",
       "[hsot] is not a section any component reads (did you mean [host]?)|1 problem(s)"},
      {agent + "[common]\nagentnme = a\nmyname = /m\n", "[common] has no agentname, which plug-in \"agent\" needs|"
       "[common] agentnme is not read by any plug-in (did you mean agentname?)|2 problem(s)"},
      {agent + named + "[names]\nANY = /x\n[network]\nlisten-port = " + busy + "\nrate = 3\n",
       "[network] rate is not read by the host or any plug-in|1 problem(s)"},
      {agent + "p = " PROBE_PLUGIN_PATH "\n" + named + "[probe]\ninit_result = 5\n",
       "note: [probe] unknown, not checked: plug-in \"p\" does not declare its keys|OK"},
      {example("agent-embedded.ini"), "OK"},
      {example("agent-zookeeper.ini"), "OK"},
  };
  for (const auto& c : cases) {
    const std::string path = dir.Write("c.ini", c.first), out = dir.Path() + "/out";
    EXPECT_EQ(StartHost("--check-config " + path + " >" + out, dir.Path() + "/err").Wait(), c.second == "OK" ||
              c.second.rfind("note", 0) == 0 ? 0 : 1);
    EXPECT_EQ(ReadFile(out), path + ": " + std::regex_replace(c.second, std::regex("\\|"), "\n" + path + ": ") + "\n");
  }
  close(listener);
}

}  // namespace
