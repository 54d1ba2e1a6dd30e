#include "test_host.h"

#include <event2/event.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <regex>

#include "zelvar/machine_factory.h"
#include "zelvar/message_pool.h"

namespace ovita2 {
namespace testing {
namespace {

TestHost* g_current = nullptr;

template <typename Fn>
zelvar::HostFunction AsSlot(Fn fn) {
  return reinterpret_cast<zelvar::HostFunction>(fn);
}

void Unused() {}

}  // namespace

// The table's functions. They reach the host through Current(), as a plain
// function pointer carries no object.
struct TestHost::FakeSlots {
  static TestHost& Host() { return *Current(); }

  static bool IsReady() { return Host().m_bReady; }

  static void Log(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, again);
    va_end(again);
    va_end(args);
    Host().m_vecLog.push_back({level, text});
  }

  static int GetLogLevel() { return Host().m_iLogLevel; }
  static int GetLogFd() { return fileno(Host().m_pLogFile); }
  static void SetRoutinePeriod(unsigned microseconds) { Host().m_uRoutinePeriod = microseconds; }

  static const std::string* Find(const char* section, const char* key) {
    auto& config = Host().m_mapConfig;
    auto it = config.find(section != nullptr ? section : "");
    if (it == config.end() || key == nullptr) return nullptr;
    for (const auto& entry : it->second) {
      if (entry.first == key) return &entry.second;
    }
    return nullptr;
  }

  static int GetConfigInt(const char* section, const char* key, int dflt) {
    const std::string* value = Find(section, key);
    return value != nullptr ? static_cast<int>(std::strtol(value->c_str(), nullptr, 10)) : dflt;
  }

  static const char* GetConfigString(const char* section, const char* key, const char* dflt) {
    const std::string* value = Find(section, key);
    if (value != nullptr) return value->c_str();
    return dflt != nullptr ? dflt : "";
  }

  static void ListConfigKeys(const char* section, const char* pattern, std::vector<std::string>* out) {
    auto& config = Host().m_mapConfig;
    auto it = config.find(section != nullptr ? section : "");
    if (it == config.end()) return;
    std::regex matcher(pattern != nullptr ? pattern : "");
    for (const auto& entry : it->second) {
      if (std::regex_search(entry.first, matcher)) out->push_back(entry.first);
    }
  }

  static const int64_t* GetNow() { return &Host().m_i64Now; }

  static bufferevent* GetConnectionBev(uint64_t connA, uint64_t connB) {
    TestPeer* peer = Host().FindOpen(connA, connB);
    return peer != nullptr ? peer->AgentSide() : nullptr;
  }

  static int PostToMachine(zelvar::ZMessage* message, zelvar::StateMachine* target, unsigned) {
    Host().PostMessage(target, message);
    return 0;
  }

  static int StartLongAction(zelvar::LongActionMethod* action, unsigned machineId, unsigned flowNo) {
    CapturedLongAction captured;
    captured.name = action->Name();
    captured.params = action->Params();
    captured.machine_id = machineId;
    captured.flow_no = flowNo;
    Host().m_vecLongActions.push_back(captured);
    return 0;
  }

  static int Aio(const char* kind, int fd, uint64_t size, uint64_t offset, unsigned machineId) {
    Host().m_vecAio.push_back({kind, fd, size, offset, machineId});
    return 0;
  }
  static int StartAioRead(int fd, uint64_t size, char*, uint64_t offset, unsigned machineId, zelvar::StateMachine*) {
    return Aio("read", fd, size, offset, machineId);
  }
  static int StartAioWrite(int fd, uint64_t size, char*, uint64_t offset, unsigned machineId, zelvar::StateMachine*) {
    return Aio("write", fd, size, offset, machineId);
  }
  static int StartAioFDSync(int fd, unsigned machineId) { return Aio("fdsync", fd, 0, 0, machineId); }

  static zelvar::StateMachine* CreateMachineForMessage(unsigned messageType) {
    return zelvar::MachineFactory::Instance()->CreateMachine(messageType);
  }

  static zelvar::ZMessage* AcquireMessage(int) { return zelvar::MessagePool::Instance()->Acquire(); }
  static void ReleaseMessage(int, zelvar::ZMessage* message) { zelvar::MessagePool::Instance()->Release(message); }

  static void* GetPluginHandle(const char* name) {
    TestHost& host = Host();
    if (!host.m_bRegistryAvailable || name == nullptr || std::string(name) != "zookeeper") return nullptr;
    return host.m_cRegistry.PluginHandle();
  }

  static bufferevent* ConnectTo(const char* ip, unsigned short port, unsigned) {
    TestHost& host = Host();
    if (host.m_setRefused.count({ip, port}) != 0) return nullptr;
    return host.Peer(ip, port).AgentSide();
  }

  static event_base* GetEventBase() { return Host().m_pBase; }

  static int DeliverToMachine(unsigned machineId, void* record, void (*drop)(void*)) {
    return Host().DeliverRecord(machineId, record, drop);
  }
};

std::string CapturedLongAction::Param(const std::string& key) const {
  auto it = params.find(key);
  return it == params.end() ? std::string() : it->second;
}

TestHost::TestHost(const PluginEntries& plugin, unsigned defaultMachineTimeoutSec)
    : m_sPlugin(plugin),
      m_pBase(event_base_new()),
      m_pRuntime(new zelvar::MachineRuntime(&m_cClock, defaultMachineTimeoutSec)),
      m_pLogFile(std::tmpfile()) {
  if (g_current != nullptr) {
    std::fprintf(stderr, "TestHost: only one test host may live at a time\n");
    std::abort();
  }
  g_current = this;
  m_pRuntime->SetLogger([this](int, const std::string& line) { m_vecRuntimeLines.push_back(line); });

  for (zelvar::HostFunction& slot : m_aTable) slot = &Unused;
  m_aTable[zelvar::kSlotIsReady] = AsSlot(&FakeSlots::IsReady);
  m_aTable[zelvar::kSlotLog] = AsSlot(&FakeSlots::Log);
  m_aTable[zelvar::kSlotGetLogLevel] = AsSlot(&FakeSlots::GetLogLevel);
  m_aTable[zelvar::kSlotGetLogFd] = AsSlot(&FakeSlots::GetLogFd);
  m_aTable[zelvar::kSlotSetRoutinePeriod] = AsSlot(&FakeSlots::SetRoutinePeriod);
  m_aTable[zelvar::kSlotGetConfigInt] = AsSlot(&FakeSlots::GetConfigInt);
  m_aTable[zelvar::kSlotGetConfigString] = AsSlot(&FakeSlots::GetConfigString);
  m_aTable[zelvar::kSlotListConfigKeys] = AsSlot(&FakeSlots::ListConfigKeys);
  m_aTable[zelvar::kSlotGetNow] = AsSlot(&FakeSlots::GetNow);
  m_aTable[zelvar::kSlotGetConnectionBev] = AsSlot(&FakeSlots::GetConnectionBev);
  m_aTable[zelvar::kSlotPostToMachine] = AsSlot(&FakeSlots::PostToMachine);
  m_aTable[zelvar::kSlotStartLongAction] = AsSlot(&FakeSlots::StartLongAction);
  m_aTable[zelvar::kSlotStartAioRead] = AsSlot(&FakeSlots::StartAioRead);
  m_aTable[zelvar::kSlotStartAioWrite] = AsSlot(&FakeSlots::StartAioWrite);
  m_aTable[zelvar::kSlotStartAioFDSync] = AsSlot(&FakeSlots::StartAioFDSync);
  m_aTable[zelvar::kSlotCreateMachineForMessage] = AsSlot(&FakeSlots::CreateMachineForMessage);
  m_aTable[zelvar::kSlotAcquireMessage] = AsSlot(&FakeSlots::AcquireMessage);
  m_aTable[zelvar::kSlotReleaseMessage] = AsSlot(&FakeSlots::ReleaseMessage);
  m_aTable[zelvar::kSlotGetPluginHandle] = AsSlot(&FakeSlots::GetPluginHandle);
  m_aTable[zelvar::kSlotConnectTo] = AsSlot(&FakeSlots::ConnectTo);
  m_aTable[zelvar::kSlotGetEventBase] = AsSlot(&FakeSlots::GetEventBase);
  m_aTable[zelvar::kSlotDeliverToMachine] = AsSlot(&FakeSlots::DeliverToMachine);
  InstallTable();
}

TestHost::~TestHost() {
  // Machines first: a machine's destructor may still reach the host.
  m_pRuntime.reset();
  m_vecPeers.clear();
  event_base_free(m_pBase);
  std::fclose(m_pLogFile);
  g_current = nullptr;
}

TestHost* TestHost::Current() {
  if (g_current == nullptr) {
    std::fprintf(stderr, "TestHost: the agent called the host while no test host lives\n");
    std::abort();
  }
  return g_current;
}

void TestHost::InstallTable() {
  if (m_sPlugin.peek != nullptr) m_sPlugin.peek(m_aTable);
  // A test starts from an empty log; the entry line is checked on its own.
  m_vecLog.clear();
}

void TestHost::ClearSlot(zelvar::HostSlot slot) {
  m_aTable[slot] = nullptr;
  InstallTable();
}

void TestHost::AdvanceClock(int64_t seconds) {
  m_i64Now += seconds;
  m_pRuntime->FireTimeouts();
}

std::vector<std::string> TestHost::LogLines() const {
  std::vector<std::string> lines;
  for (const LogLine& line : m_vecLog) lines.push_back(line.text);
  return lines;
}

std::vector<std::string> TestHost::LogLinesAt(int level) const {
  std::vector<std::string> lines;
  for (const LogLine& line : m_vecLog) {
    if (line.level == level) lines.push_back(line.text);
  }
  return lines;
}

bool TestHost::Logged(const std::string& text) const {
  for (const LogLine& line : m_vecLog) {
    if (line.text == text) return true;
  }
  return false;
}

std::string TestHost::LogFdText() const {
  std::fflush(m_pLogFile);
  int fd = fileno(m_pLogFile);
  std::string text;
  char chunk[4096];
  off_t offset = 0;
  ssize_t got;
  while ((got = pread(fd, chunk, sizeof(chunk), offset)) > 0) {
    text.append(chunk, static_cast<size_t>(got));
    offset += got;
  }
  return text;
}

void TestHost::SetConfig(const std::string& section, const std::string& key, const std::string& value) {
  auto& entries = m_mapConfig[section];
  for (auto& entry : entries) {
    if (entry.first == key) {
      entry.second = value;
      return;
    }
  }
  entries.emplace_back(key, value);
}

StartedMachine TestHost::RunRoutine() {
  zelvar::StateMachine* machine = nullptr;
  if (m_sPlugin.routine != nullptr) m_sPlugin.routine(&machine);
  if (machine == nullptr) return StartedMachine();
  return Start(machine);
}

StartedMachine TestHost::Start(zelvar::StateMachine* machine) {
  StartedMachine started{machine->GetMachineId(), machine->MachineName()};
  m_pRuntime->Start(machine);
  return started;
}

size_t TestHost::RunPending() { return m_pRuntime->RunPending(); }

void TestHost::PostMessage(zelvar::StateMachine* machine, zelvar::ZMessage* message) {
  m_pRuntime->Post(machine, zelvar::MessageEvent(message));
}

int TestHost::DeliverRecord(uint32_t machineId, void* record, void (*drop)(void*)) {
  return m_pRuntime->PostById(machineId, zelvar::PluginEvent(record, drop));
}

TestPeer& TestHost::NewPeer(const std::string& ip, uint16_t port, bool outbound) {
  // Like a descriptor and a serial number: never reused within one host.
  uint64_t serial = m_u64NextConn++;
  m_vecPeers.emplace_back(new TestPeer(this, m_pBase, ip, port, 100 + serial, serial));
  m_vecOutbound.push_back(outbound);
  return *m_vecPeers.back();
}

TestPeer& TestHost::Peer(const std::string& ip, uint16_t port) {
  for (size_t i = 0; i < m_vecPeers.size(); ++i) {
    TestPeer& peer = *m_vecPeers[i];
    if (m_vecOutbound[i] && peer.IsOpen() && peer.Ip() == ip && peer.Port() == port) return peer;
  }
  return NewPeer(ip, port, true);
}

TestPeer& TestHost::Accept(const std::string& ip, uint16_t port) { return NewPeer(ip, port, false); }

std::vector<TestPeer*> TestHost::OutboundPeers() const {
  std::vector<TestPeer*> peers;
  for (size_t i = 0; i < m_vecPeers.size(); ++i) {
    if (m_vecOutbound[i] && m_vecPeers[i]->IsOpen()) peers.push_back(m_vecPeers[i].get());
  }
  return peers;
}

TestPeer* TestHost::FindOpen(uint64_t connA, uint64_t connB) const {
  for (const auto& peer : m_vecPeers) {
    if (peer->IsOpen() && peer->ConnA() == connA && peer->ConnB() == connB) return peer.get();
  }
  return nullptr;
}

int TestHost::Route(TestPeer& peer) {
  if (m_sPlugin.data_in == nullptr) return -1;
  int result;
  do {
    zelvar::ZMessage* message = nullptr;
    zelvar::StateMachine* machine = nullptr;
    result = m_sPlugin.data_in(peer.ConnA(), peer.ConnB(), &message, &machine);
    if (result == 0) PostMessage(machine, message);
  } while (result == 0);
  return result;
}

void TestHost::CompleteLongAction(uint32_t flowNo, const std::string& output, const std::string& error,
                                  int64_t status) {
  for (auto it = m_vecLongActions.rbegin(); it != m_vecLongActions.rend(); ++it) {
    if (it->flow_no != flowNo || it->completed) continue;
    it->completed = true;
    auto* result = new zelvar::LongActionResult();
    result->output = output;
    result->error = error;
    result->status = status;
    result->flow_no = flowNo;
    m_pRuntime->PostById(it->machine_id, zelvar::LongActionEvent(result));
    return;
  }
  std::fprintf(stderr, "TestHost: no long action is waiting under flow %u\n", flowNo);
  std::abort();
}

}  // namespace testing
}  // namespace ovita2

// ===== registry plug-ins: a real event loop, undelivered records ======================
#include <chrono>

namespace ovita2 {
namespace testing {

bool TestHost::RunLoopUntil(const std::function<bool()>& done, int limitMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  // Bounds each wait, so that `done` is looked at even when the loop is idle.
  event* slice = evtimer_new(m_pBase, [](evutil_socket_t, short, void*) {}, nullptr);
  const timeval sliceLength = {0, 10 * 1000};
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    evtimer_add(slice, &sliceLength);
    event_base_loop(m_pBase, EVLOOP_ONCE);
    RunPending();
  }
  event_free(slice);
  return done();
}

void TestHost::CountUndeliveredRecords() {
  m_aTable[zelvar::kSlotDeliverToMachine] = AsSlot(&TestHost::DeliverCountingUndelivered);
}

int TestHost::DeliverCountingUndelivered(unsigned machineId, void* record, void (*drop)(void*)) {
  int rc = Current()->DeliverRecord(machineId, record, drop);
  if (rc != 0) ++Current()->m_uUndeliveredRecords;
  return rc;
}

}  // namespace testing
}  // namespace ovita2
// ===== end of the registry plug-ins' block ============================================
