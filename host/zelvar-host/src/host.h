// Host: the zelvar-host process in one object. It reads the configuration,
// opens the log, loads the plug-ins and hands them the 44-slot table, and runs
// the libevent loop that drives everything else: the OnRoutine tick, the
// machine runtime and its timeouts, connections, long actions and AIO.
//
// Start-up order: configuration, log, listening socket, then each plug-in in
// file order is opened and given the table (OnPeekInterface); once all are
// open, each gets OnInit(config path as const char*) in the same order, so a
// plug-in may look another up with GetPluginHandle from its OnInit.
//
// Routine tick: every plug-in that exports OnRoutine is called once per tick,
// in load order; a machine it returns is started at state -1. The period is one
// per host: one second until a plug-in calls SetRoutinePeriod, then the
// smallest period asked for.
//
// Shutdown (SIGTERM, SIGINT, or Stop()): the loop ends, the listener closes,
// running long actions are killed and reaped, plug-ins get OnUnload, machines
// are destroyed, connections closed, libraries closed, the log flushed.
// SIGHUP reopens the log file.
//
// The slots of the table reach the host through Host::Current(): one Host
// lives at a time in a process. Everything runs on the thread that calls
// Init and Run.
#ifndef ZELVAR_HOST_HOST_H
#define ZELVAR_HOST_HOST_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "aio_service.h"
#include "config.h"
#include "connection_manager.h"
#include "host_settings.h"
#include "logger.h"
#include "long_action_executor.h"
#include "loop_clock.h"
#include "plugin.h"
#include "zelvar/host_interface.h"
#include "zelvar/machine_runtime.h"

struct event;
struct event_base;

namespace zelvar_host {

class Host {
 public:
  static constexpr unsigned kDefaultRoutinePeriodUs = 1000000;

  Host();
  ~Host();  // Shutdown()
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The live host, or null.
  static Host* Current() { return s_pCurrent; }

  // Everything up to the first loop turn. False with one line in `error`; the
  // host is then shut down already.
  bool Init(const std::string& configPath, std::string* error);
  // Runs the loop until Stop() or a stop signal, then shuts down. Returns 0.
  int Run();
  // Runs loop turns until `done` is true or `maxSeconds` passed (tests drive
  // the host in-process with it). Returns `done()`.
  bool RunUntil(const std::function<bool()>& done, double maxSeconds);
  // Ends the loop at the end of the current turn.
  void Stop();
  void Shutdown();

  // Services behind the table's slots.
  const zelvar::HostFunction* Table() const { return m_arrTable; }
  Logger& Log() { return m_sLogger; }
  // Keeps the last line a plug-in logged at the error level, quoted when its
  // OnInit fails.
  void NoteErrorLine(std::string line) {
    while (!line.empty() && line.back() == '\n') line.pop_back();
    m_strLastErrorLine = std::move(line);
  }
  const Config& Configuration() const { return m_sConfig; }
  event_base* Base() const { return m_pBase; }
  zelvar::MachineRuntime& Runtime() { return *m_pRuntime; }
  ConnectionManager& Connections() { return *m_pConnections; }
  LongActionExecutor& LongActions() { return *m_pLongActions; }
  AioService& Aio() { return *m_pAio; }
  LoopClock& Clock() { return *m_pClock; }

  bool IsReady() const;
  void* GetPluginHandle(const char* name) const;
  void SetRoutinePeriod(unsigned microseconds);
  unsigned RoutinePeriodUs() const { return m_uRoutinePeriodUs; }
  // Queues a message event for `target`, or the live machine `id` when target
  // is null. Takes the message.
  int PostMessage(zelvar::ZMessage* message, zelvar::StateMachine* target, unsigned id);
  int DeliverRecord(unsigned machineId, void* record, void (*drop)(void*));

 private:
  // The steps of Init, in order.
  bool CreateLoop(std::string* error);
  void CreateServices();
  bool StartServing(std::string* error);
  bool LoadPlugins(std::string* error);
  void ArmRoutineTimer();
  void ArmDeadlineTimer();
  void Tick();

  static void OnRoutineTimer(int, short, void* arg);
  static void OnDeadline(int, short, void* arg);
  static void OnWakeup(int, short, void* arg);
  static void OnStopSignal(int signal, short, void* arg);
  static void OnReopenSignal(int, short, void* arg);
  static void OnPoll(int, short, void*) {}

  static Host* s_pCurrent;

  Config m_sConfig;
  HostSettings m_sSettings;
  Logger m_sLogger;
  std::string m_strLastErrorLine;
  zelvar::HostFunction m_arrTable[zelvar::kHostSlotCount];
  event_base* m_pBase = nullptr;
  std::unique_ptr<LoopClock> m_pClock;
  std::unique_ptr<zelvar::MachineRuntime> m_pRuntime;
  std::unique_ptr<LongActionExecutor> m_pLongActions;
  std::unique_ptr<AioService> m_pAio;
  std::unique_ptr<ConnectionManager> m_pConnections;
  std::vector<std::unique_ptr<Plugin>> m_vecPlugins;
  std::vector<event*> m_vecEvents;  // every event below, freed together
  event* m_pRoutineTimer = nullptr;
  event* m_pDeadlineTimer = nullptr;
  event* m_pWakeup = nullptr;
  event* m_pPoll = nullptr;
  unsigned m_uRoutinePeriodUs = kDefaultRoutinePeriodUs;
  bool m_bRoutinePeriodAsked = false;
  bool m_bStarted = false;
  bool m_bShutDown = false;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_HOST_H
