#include "test_host.h"

#include <event2/event.h>
#include <regex.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdlib>

#include "zelvar/machine_factory.h"
#include "zelvar/message_pool.h"

namespace ovita2::testing {
namespace {
TestHost* g_current = nullptr;
void Unused() {}
}  // namespace

const std::string* TestHost::FindConfig(const char* section, const char* key) const {
  auto it = m_mapConfig.find(section != nullptr ? section : "");
  if (it == m_mapConfig.end() || key == nullptr) return nullptr;
  auto found = it->second.find(key);
  return found != it->second.end() ? &found->second : nullptr;
}

void TestHost::Log(int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = nullptr;
  int length = vasprintf(&text, format, args);
  va_end(args);
  Current()->m_vecLog.push_back(length >= 0 ? std::string(text, static_cast<size_t>(length)) : std::string());
  std::free(text);
}

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
  Set(zelvar::kSlotGetNow, +[] { return static_cast<const int64_t*>(&Current()->m_cClock.seconds); });
  Set(zelvar::kSlotGetConnectionBev, +[](uint64_t connA, uint64_t connB) {
    for (const auto& peer : Current()->m_vecPeers) {
      if (peer->IsOpen() && peer->ConnA() == connA && peer->ConnB() == connB) return peer->AgentSide();
    }
    return static_cast<bufferevent*>(nullptr);
  });
  Set(zelvar::kSlotPostToMachine, +[](ZMessage* message, zelvar::StateMachine* target, unsigned id) {
    Current()->m_uLastPostedId = id;
    Current()->PostMessage(target, message);
    return 0;
  });
  Set(zelvar::kSlotStartLongAction, +[](zelvar::LongActionMethod* action, unsigned machineId, unsigned flowNo) {
    auto command = action->Params().find(zelvar::ExecuteShell2::kCommandParam);
    std::string text = command != action->Params().end() ? command->second : "";
    Current()->m_vecLongActions.push_back({action->Name(), text, machineId, flowNo, false});
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
    bool registry = Current()->m_bRegistryAvailable && name != nullptr && std::string(name) == "zookeeper";
    return registry ? Current()->m_cRegistry.PluginHandle() : nullptr;
  });
  Set(zelvar::kSlotConnectTo,
      +[](const char* ip, unsigned short port, unsigned) { return Current()->Peer(ip, port).AgentSide(); });
  Set(zelvar::kSlotGetEventBase, +[] { return Current()->m_pBase; });
  Set(zelvar::kSlotDeliverToMachine, +[](unsigned machineId, void* record, void (*drop)(void*)) {
    int rc = Current()->DeliverRecord(machineId, record, drop);
    Current()->m_uUndeliveredRecords += rc != 0;
    return rc;
  });
  if (m_sPlugin.peek != nullptr) m_sPlugin.peek(m_aTable);
  m_vecLog.clear();  // the entry line is checked on its own
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

void TestHost::AdvanceClock(int64_t seconds) {
  m_cClock.seconds += seconds;
  m_pRuntime->FireTimeouts();
}

bool TestHost::Logged(const std::string& text) const {
  return std::any_of(m_vecLog.begin(), m_vecLog.end(),
                     [&text](const std::string& line) { return line.find(text) != std::string::npos; });
}

uint32_t TestHost::Start(zelvar::StateMachine* machine) {
  const uint32_t id = machine->GetMachineId();
  m_pRuntime->Start(machine);
  return id;
}

TestPeer& TestHost::Peer(const std::string& ip, uint16_t port) {
  for (const auto& peer : m_vecPeers) {
    if (peer->outbound && peer->IsOpen() && peer->Ip() == ip && peer->Port() == port) return *peer;
  }
  return Accept(ip, port, true);
}

TestPeer& TestHost::Accept(const std::string& ip, uint16_t port, bool outbound) {
  // Like a descriptor and a serial number: never reused within one host.
  uint64_t serial = m_vecPeers.size() + 1;
  m_vecPeers.emplace_back(new TestPeer(this, m_pBase, ip, port, 100 + serial, serial));
  m_vecPeers.back()->outbound = outbound;
  return *m_vecPeers.back();
}

int TestHost::Route(TestPeer& peer) {
  for (;;) {
    zelvar::ZMessage* message = nullptr;
    zelvar::StateMachine* machine = nullptr;
    int result = m_sPlugin.data_in(peer.ConnA(), peer.ConnB(), &message, &machine);
    if (result != 0) return result;
    m_pLastRouted = message;
    PostMessage(machine, message);
  }
}

void TestHost::CompleteLongAction(uint32_t flowNo, const std::string& output, const std::string& error,
                                  int64_t status) {
  for (auto it = m_vecLongActions.rbegin(); it != m_vecLongActions.rend(); ++it) {
    if (it->flow_no != flowNo || it->completed) continue;
    it->completed = true;
    auto* result = new zelvar::LongActionResult{output, error, status, flowNo};
    m_pRuntime->PostById(it->machine_id, zelvar::LongActionEvent(result));
    return;
  }
  std::fprintf(stderr, "TestHost: no long action is waiting under flow %u\n", flowNo);
  std::abort();
}

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

}  // namespace ovita2::testing
