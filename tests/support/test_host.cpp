#include "test_host.h"

#include <event2/event.h>
#include <regex.h>

#include <cstdarg>
#include <algorithm>
#include <cstdlib>

#include "zelvar/machine_factory.h"
#include "zelvar/message_pool.h"

namespace ovita2 {
namespace testing {
namespace {

TestHost* g_current = nullptr;

void Unused() {}

}  // namespace

std::string CapturedLongAction::Param(const std::string& key) const {
  auto it = params.find(key);
  return it == params.end() ? std::string() : it->second;
}

const std::string* TestHost::FindConfig(const char* section, const char* key) const {
  auto it = m_mapConfig.find(section != nullptr ? section : "");
  if (it == m_mapConfig.end() || key == nullptr) return nullptr;
  for (const auto& entry : it->second) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

void TestHost::Log(int, const char* format, ...) {
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  std::string text(static_cast<size_t>(std::max(std::vsnprintf(nullptr, 0, format, args), 0)), '\0');
  std::vsnprintf(&text[0], text.size() + 1, format, again);
  va_end(again);
  va_end(args);
  Current()->m_vecLog.push_back(text);
}

// The slots reach the host through Current(): a plain function pointer
// carries no object.
TestHost::TestHost(const PluginEntries& plugin, unsigned defaultMachineTimeoutSec)
    : m_sPlugin(plugin),
      m_pBase(event_base_new()),
      m_pRuntime(new zelvar::MachineRuntime(&m_cClock, defaultMachineTimeoutSec)),
      m_pLogFile(std::tmpfile()) {
  if (g_current != nullptr) std::abort();  // one test host at a time
  g_current = this;
  using zelvar::ZMessage;
  for (zelvar::HostFunction& slot : m_aTable) slot = &Unused;
  Set(zelvar::kSlotIsReady, +[] { return Current()->m_bReady; });
  Set(zelvar::kSlotLog, &TestHost::Log);
  Set(zelvar::kSlotGetLogLevel, +[] { return Current()->m_iLogLevel; });
  Set(zelvar::kSlotGetLogFd, +[] { return fileno(Current()->m_pLogFile); });
  Set(zelvar::kSlotSetRoutinePeriod, +[](unsigned microseconds) { Current()->m_uRoutinePeriod = microseconds; });
  Set(zelvar::kSlotGetConfigInt, +[](const char* section, const char* key, int dflt) {
    const std::string* value = Current()->FindConfig(section, key);
    return value != nullptr ? static_cast<int>(std::strtol(value->c_str(), nullptr, 10)) : dflt;
  });
  Set(zelvar::kSlotGetConfigString, +[](const char* section, const char* key, const char* dflt) {
    const std::string* value = Current()->FindConfig(section, key);
    return value != nullptr ? value->c_str() : dflt != nullptr ? dflt : "";
  });
  Set(zelvar::kSlotListConfigKeys, +[](const char* section, const char* pattern, std::vector<std::string>* out) {
    // Matched as zelvar-host does: POSIX extended, anywhere in the key.
    TestHost& host = *Current();
    host.m_strKeyPattern = pattern;
    auto it = host.m_mapConfig.find(section);
    regex_t compiled;
    if (it == host.m_mapConfig.end() || regcomp(&compiled, pattern, REG_EXTENDED | REG_NOSUB) != 0) return;
    for (const auto& entry : it->second) {
      if (regexec(&compiled, entry.first.c_str(), 0, nullptr, 0) == 0) out->push_back(entry.first);
    }
    regfree(&compiled);
  });
  Set(zelvar::kSlotGetNow, +[] { return static_cast<const int64_t*>(&Current()->m_i64Now); });
  Set(zelvar::kSlotGetConnectionBev, +[](uint64_t connA, uint64_t connB) {
    TestPeer* peer = Current()->FindOpen(connA, connB);
    return peer != nullptr ? peer->AgentSide() : nullptr;
  });
  Set(zelvar::kSlotPostToMachine, +[](ZMessage* message, zelvar::StateMachine* target, unsigned id) {
    Current()->m_uLastPostedId = id;
    Current()->PostMessage(target, message);
    return 0;
  });
  Set(zelvar::kSlotStartLongAction, +[](zelvar::LongActionMethod* action, unsigned machineId, unsigned flowNo) {
    Current()->m_vecLongActions.push_back({action->Name(), action->Params(), machineId, flowNo, false});
    return 0;
  });
  Set(zelvar::kSlotCreateMachineForMessage,
      +[](unsigned type) { return zelvar::MachineFactory::Instance()->CreateMachine(type); });
  Set(zelvar::kSlotAcquireMessage, +[](int) {
    ZMessage* message = zelvar::MessagePool::Instance()->Acquire();
    Current()->m_mapReleases[message] = 0;
    return message;
  });
  Set(zelvar::kSlotReleaseMessage, +[](int, ZMessage* message) {
    ++Current()->m_mapReleases[message];
    zelvar::MessagePool::Instance()->Release(message);
  });
  Set(zelvar::kSlotGetPluginHandle, +[](const char* name) {
    TestHost& host = *Current();
    bool registry = host.m_bRegistryAvailable && name != nullptr && std::string(name) == "zookeeper";
    return registry ? host.m_cRegistry.PluginHandle() : nullptr;
  });
  Set(zelvar::kSlotConnectTo,
      +[](const char* ip, unsigned short port, unsigned) { return Current()->Peer(ip, port).AgentSide(); });
  Set(zelvar::kSlotGetEventBase, +[] { return Current()->m_pBase; });
  Set(zelvar::kSlotDeliverToMachine, +[](unsigned machineId, void* record, void (*drop)(void*)) {
    return Current()->DeliverRecord(machineId, record, drop);
  });
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
  if (g_current == nullptr) std::abort();  // the plug-in called a host that is gone
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

bool TestHost::Logged(const std::string& text) const {
  return std::find(m_vecLog.begin(), m_vecLog.end(), text) != m_vecLog.end();
}

int TestHost::Releases(const zelvar::ZMessage* message) const {
  auto found = m_mapReleases.find(message);
  return found != m_mapReleases.end() ? found->second : 0;
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
    if (result != 0) break;
    m_pLastRouted = message;
    PostMessage(machine, message);
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
