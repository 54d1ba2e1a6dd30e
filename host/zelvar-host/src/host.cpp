#include "host.h"

#include <event2/event.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "host_table.h"
#include "zelvar/message_pool.h"
#include "zelvar/state_machine.h"

namespace zelvar_host {
namespace {

// A thousand children at once hold two thousand pipe ends.
void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

timeval FromMicroseconds(int64_t microseconds) {
  timeval tv;
  tv.tv_sec = static_cast<time_t>(microseconds / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
  return tv;
}


}  // namespace

Host* Host::s_pCurrent = nullptr;

Host::Host() { FillHostTable(m_arrTable); }

Host::~Host() { Shutdown(); }

bool Host::Init(const std::string& configPath, std::string* error) {
  if (s_pCurrent != nullptr) {
    *error = "another host is already running in this process";
    return false;
  }
  s_pCurrent = this;
  bool ok = m_sConfig.Load(configPath, error) && HostSettings::FromConfig(m_sConfig, &m_sSettings, error) &&
            m_sLogger.Open(m_sSettings.log_file, error);
  if (!ok) {
    Shutdown();
    return false;
  }
  m_sLogger.SetThreshold(m_sSettings.log_level);
  signal(SIGPIPE, SIG_IGN);
  RaiseDescriptorLimit();
  if (!CreateLoop(error)) {
    Shutdown();
    return false;
  }
  CreateServices();
  if (!StartServing(error)) {
    Shutdown();
    return false;
  }
  m_bStarted = true;
  m_sLogger.Log(Logger::kInfo, "zelvar-host started with %zu plug-in(s) from %s", m_vecPlugins.size(),
                configPath.c_str());
  return true;
}

bool Host::CreateLoop(std::string* error) {
  event_config* eventConfig = event_config_new();
  // Check for I/O after every 16 callbacks, so machines that keep posting to
  // each other cannot starve the sockets. Only a count: a time limit is
  // checked after every callback, and a limit of zero would end each turn
  // after its first one, so that every machine an event wakes would cost a
  // turn of its own with an epoll_wait and a clock read.
  event_config_set_max_dispatch_interval(eventConfig, nullptr, 16, 0);
  // The coarse clock libevent reads by default lags by up to a jiffy, so a
  // timer could look not yet due when the wait for it ended, and cost a
  // second wake-up a few milliseconds later. The precise clock is read
  // without a system call as well; its price is that libevent arms a timerfd
  // on every turn, one cheap system call, where a wake-up costs a hundred
  // times as much.
  event_config_set_flag(eventConfig, EVENT_BASE_FLAG_PRECISE_TIMER);
  m_pBase = event_base_new_with_config(eventConfig);
  event_config_free(eventConfig);
  if (m_pBase == nullptr) {
    *error = "cannot create the event loop";
    return false;
  }
  m_pClock = std::make_unique<LoopClock>(m_pBase);
  m_pRuntime = std::make_unique<zelvar::MachineRuntime>(m_pClock.get(), m_sSettings.machine_timeout_sec);
  m_pRuntime->SetLogger([this](int level, const std::string& line) { m_sLogger.Write(level, line); });
  m_pWakeup = event_new(m_pBase, -1, 0, &Host::OnWakeup, this);
  m_pRuntime->SetWakeup([this] { event_active(m_pWakeup, EV_TIMEOUT, 0); });
  m_pDeadlineTimer = evtimer_new(m_pBase, &Host::OnDeadline, this);
  m_pRoutineTimer = event_new(m_pBase, -1, EV_PERSIST, &Host::OnRoutineTimer, this);
  m_pPoll = evtimer_new(m_pBase, &Host::OnPoll, this);
  m_vecEvents = {m_pWakeup, m_pDeadlineTimer, m_pRoutineTimer, m_pPoll};
  for (int sig : {SIGTERM, SIGINT}) {
    event* stop = evsignal_new(m_pBase, sig, &Host::OnStopSignal, this);
    event_add(stop, nullptr);
    m_vecEvents.push_back(stop);
  }
  event* reopen = evsignal_new(m_pBase, SIGHUP, &Host::OnReopenSignal, this);
  event_add(reopen, nullptr);
  m_vecEvents.push_back(reopen);
  return true;
}

void Host::CreateServices() {
  m_pLongActions = std::make_unique<LongActionExecutor>(
      m_pBase, &m_sLogger, m_sSettings.long_action, [this](uint32_t machineId, zelvar::LongActionResult* record) {
        m_pRuntime->PostById(machineId, zelvar::LongActionEvent(record));
      });
  m_pAio = std::make_unique<AioService>(
      [this](uint32_t machineId, zelvar::StateMachine* machine, zelvar::AioResult* record) {
        zelvar::MachineEvent event = zelvar::AioEvent(record);
        return machine != nullptr ? m_pRuntime->Post(machine, event) : m_pRuntime->PostById(machineId, event);
      });
  m_pConnections = std::make_unique<ConnectionManager>(
      m_pBase, &m_sLogger, &m_vecPlugins, m_sSettings.connection_limits,
      [this](zelvar::ZMessage* message, zelvar::StateMachine* machine) { PostMessage(message, machine, 0); });
}

bool Host::StartServing(std::string* error) {
  if (m_sSettings.listen_port != 0 &&
      !m_pConnections->Listen(m_sSettings.listen_ip, m_sSettings.listen_port, error)) {
    return false;
  }
  if (!LoadPlugins(error)) {
    if (!m_sSettings.log_file.empty()) m_sLogger.Write(Logger::kError, *error);
    return false;
  }
  ArmRoutineTimer();
  ArmDeadlineTimer();
  return true;
}

bool Host::LoadPlugins(std::string* error) {
  for (const auto& entry : m_sSettings.plugins) {
    auto plugin = std::make_unique<Plugin>(entry.first, entry.second);
    if (!plugin->Load(error)) return false;
    m_sLogger.Log(Logger::kInfo, "loaded plug-in \"%s\" from %s", entry.first.c_str(), entry.second.c_str());
    m_vecPlugins.push_back(std::move(plugin));
    m_vecPlugins.back()->on_peek_interface(m_arrTable);
  }
  for (const auto& plugin : m_vecPlugins) {
    m_strLastErrorLine.clear();
    int rc = plugin->on_init(const_cast<char*>(m_sConfig.Path().c_str()));
    if (rc != 0) {
      *error = "plug-in \"" + plugin->Name() + "\" failed to start: OnInit returned " + std::to_string(rc);
      if (!m_strLastErrorLine.empty()) *error += ": " + m_strLastErrorLine;
      return false;
    }
  }
  return true;
}

int Host::Run() {
  if (m_pBase != nullptr && !m_bShutDown) event_base_dispatch(m_pBase);
  Shutdown();
  return 0;
}

bool Host::RunUntil(const std::function<bool()>& done, double maxSeconds) {
  timeval start;
  evutil_gettimeofday(&start, nullptr);
  while (!done()) {
    timeval now;
    evutil_gettimeofday(&now, nullptr);
    double elapsed = static_cast<double>(now.tv_sec - start.tv_sec) + (now.tv_usec - start.tv_usec) / 1e6;
    if (elapsed > maxSeconds || m_pBase == nullptr) return done();
    // A short timer bounds each turn, so the condition is checked often.
    timeval slice{0, 5000};
    evtimer_add(m_pPoll, &slice);
    event_base_loop(m_pBase, EVLOOP_ONCE);
  }
  return true;
}

void Host::Stop() {
  if (m_pBase != nullptr) event_base_loopbreak(m_pBase);
}

void Host::Shutdown() {
  if (m_bShutDown) return;
  m_bShutDown = true;
  if (m_pConnections) m_pConnections->StopListening();
  if (m_pLongActions) m_pLongActions->KillAll();
  for (const auto& plugin : m_vecPlugins) plugin->NotifyUnload();
  m_pRuntime.reset();  // machines go while their code is still there
  m_pConnections.reset();
  m_pLongActions.reset();
  m_pAio.reset();
  for (auto it = m_vecPlugins.rbegin(); it != m_vecPlugins.rend(); ++it) (*it)->Close();
  m_vecPlugins.clear();
  for (event* ev : m_vecEvents) event_free(ev);
  m_vecEvents.clear();
  m_pClock.reset();
  if (m_pBase != nullptr) event_base_free(m_pBase);
  m_pBase = nullptr;
  if (m_bStarted) m_sLogger.Log(Logger::kInfo, "zelvar-host stopped");
  if (s_pCurrent == this) s_pCurrent = nullptr;
  m_sLogger.Close();
}

bool Host::IsReady() const {
  for (const auto& plugin : m_vecPlugins) {
    if (plugin->on_is_ready != nullptr && plugin->on_is_ready() == 0) return false;
  }
  return true;
}

void* Host::GetPluginHandle(const char* name) const {
  if (name == nullptr) return nullptr;
  for (const auto& plugin : m_vecPlugins) {
    if (plugin->Name() == name) {
      return plugin->on_get_plugin_handle != nullptr ? plugin->on_get_plugin_handle() : nullptr;
    }
  }
  return nullptr;
}

void Host::SetRoutinePeriod(unsigned microseconds) {
  if (microseconds == 0) return;
  if (m_bRoutinePeriodAsked && microseconds >= m_uRoutinePeriodUs) return;
  m_bRoutinePeriodAsked = true;
  m_uRoutinePeriodUs = microseconds;
  if (m_pRoutineTimer != nullptr) ArmRoutineTimer();
}

void Host::ArmRoutineTimer() {
  timeval period = FromMicroseconds(m_uRoutinePeriodUs);
  event_add(m_pRoutineTimer, &period);
}

void Host::ArmDeadlineTimer() {
  if (!m_pRuntime) return;
  int64_t next = m_pRuntime->NextDeadlineMs();
  if (next < 0) {
    event_del(m_pDeadlineTimer);
    return;
  }
  int64_t delay = next - m_pClock->NowMs();
  if (delay < 0) delay = 0;
  timeval tv = FromMicroseconds(delay * 1000);
  event_add(m_pDeadlineTimer, &tv);
}

int Host::PostMessage(zelvar::ZMessage* message, zelvar::StateMachine* target, unsigned id) {
  zelvar::MachineEvent event = zelvar::MessageEvent(message);
  if (!m_pRuntime) {
    zelvar::MessagePool::Instance()->Release(message);
    return -1;
  }
  return target != nullptr ? m_pRuntime->Post(target, event) : m_pRuntime->PostById(id, event);
}

int Host::DeliverRecord(unsigned machineId, void* record, void (*drop)(void*)) {
  zelvar::MachineEvent event = zelvar::PluginEvent(record, drop);
  if (!m_pRuntime) {
    if (drop != nullptr && record != nullptr) drop(record);
    return -1;
  }
  return m_pRuntime->PostById(machineId, event);
}

void Host::Tick() {
  for (const auto& plugin : m_vecPlugins) {
    if (plugin->on_routine == nullptr) continue;
    zelvar::StateMachine* machine = nullptr;
    plugin->on_routine(&machine);
    if (machine != nullptr) m_pRuntime->Start(machine);
  }
  ArmDeadlineTimer();
}

void Host::OnRoutineTimer(int, short, void* arg) { static_cast<Host*>(arg)->Tick(); }

void Host::OnDeadline(int, short, void* arg) {
  Host* self = static_cast<Host*>(arg);
  self->m_pRuntime->FireTimeouts();
  self->ArmDeadlineTimer();
}

void Host::OnWakeup(int, short, void* arg) {
  Host* self = static_cast<Host*>(arg);
  self->m_pRuntime->RunPending();
  self->ArmDeadlineTimer();
}

void Host::OnStopSignal(int signal, short, void* arg) {
  Host* self = static_cast<Host*>(arg);
  self->m_sLogger.Log(Logger::kInfo, "stopping on signal %d (SIG%s)", signal, sigabbrev_np(signal));
  self->Stop();
}

void Host::OnReopenSignal(int, short, void* arg) {
  Host* self = static_cast<Host*>(arg);
  std::string error;
  if (!self->m_sLogger.Reopen(&error)) {
    self->m_sLogger.Write(Logger::kError, error);
    return;
  }
  self->m_sLogger.Log(Logger::kInfo, "log file reopened");
}

}  // namespace zelvar_host
