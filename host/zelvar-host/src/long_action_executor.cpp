#include "long_action_executor.h"

#include <event2/event.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "logger.h"
#include "zelvar/shell_process.h"
#include "zelvar/string_util.h"

namespace zelvar_host {
namespace {

constexpr size_t kReadChunk = 65536;
// Reads per readiness callback, so one chatty child cannot hold the loop.
constexpr int kReadsPerCallback = 4;
// A chain of forwards longer than this is a loop, not a design.
constexpr int kMaxForwardDepth = 16;

const zelvar::LongActionMethod* Resolve(const zelvar::LongActionMethod* action) {
  for (int depth = 0; depth < kMaxForwardDepth && action->Forward() != nullptr; ++depth) {
    action = action->Forward();
  }
  return action;
}

}  // namespace

LongActionExecutor::LongActionExecutor(event_base* base, Logger* log, const LongActionLimits& limits,
                                       Deliver deliver)
    : m_pBase(base), m_pLog(log), m_sLimits(limits), m_fnDeliver(std::move(deliver)) {
  if (m_sLimits.max_children == 0) m_sLimits.max_children = 1;
  m_pChildSignal = evsignal_new(m_pBase, SIGCHLD, &LongActionExecutor::OnChildSignal, this);
  event_add(m_pChildSignal, nullptr);
}

LongActionExecutor::~LongActionExecutor() {
  KillAll();
  event_free(m_pChildSignal);
}

int LongActionExecutor::Start(const zelvar::LongActionMethod* action, uint32_t machineId,
                              uint32_t flowNo) {
  if (action == nullptr) return -1;
  const zelvar::LongActionMethod* real = Resolve(action);
  if (real->Name() != zelvar::ExecuteShell2::kName) {
    Answer(machineId, flowNo, zelvar::LongActionResult::kStatusUnknownAction,
           "unknown long action \"" + real->Name() + "\"");
    return 0;
  }
  Pending pending{real->FirstParam(zelvar::ExecuteShell2::kCommandParam), machineId, flowNo};
  if (m_mapChildren.size() >= m_sLimits.max_children) {
    m_dqQueue.push_back(std::move(pending));
    return 0;
  }
  Spawn(pending);
  return 0;
}

void LongActionExecutor::Answer(uint32_t machineId, uint32_t flowNo, int64_t status, std::string error) {
  auto* record = new zelvar::LongActionResult();
  record->status = status;
  record->error = std::move(error);
  record->flow_no = flowNo;
  m_fnDeliver(machineId, record);
}

void LongActionExecutor::Spawn(const Pending& pending) {
  zelvar::ShellChild shell;
  std::string error;
  if (!zelvar::SpawnShell(pending.command, &shell, &error)) {
    m_pLog->Log(Logger::kError, "long action for machine %u not started: %s", pending.machine_id,
                error.c_str());
    Answer(pending.machine_id, pending.flow_no, zelvar::LongActionResult::kStatusSpawnFailed, error);
    return;
  }
  auto child = std::make_unique<Child>();
  child->owner = this;
  child->pid = shell.pid;
  child->machine_id = pending.machine_id;
  child->flow_no = pending.flow_no;
  int fds[2] = {shell.stdout_fd, shell.stderr_fd};
  for (int i = 0; i < 2; ++i) {
    Stream& stream = child->streams[i];
    stream.child = child.get();
    stream.fd = fds[i];
    stream.reader = event_new(m_pBase, fds[i], EV_READ | EV_PERSIST, &LongActionExecutor::OnReadable, &stream);
    event_add(stream.reader, nullptr);
  }
  if (m_sLimits.time_limit_sec > 0) {
    child->timer = evtimer_new(m_pBase, &LongActionExecutor::OnTimeLimit, child.get());
    timeval limit{static_cast<time_t>(m_sLimits.time_limit_sec), 0};
    evtimer_add(child->timer, &limit);
  }
  m_mapChildren.emplace(shell.pid, std::move(child));
}

void LongActionExecutor::StartQueued() {
  while (!m_dqQueue.empty() && m_mapChildren.size() < m_sLimits.max_children) {
    Pending pending = std::move(m_dqQueue.front());
    m_dqQueue.pop_front();
    Spawn(pending);
  }
}

void LongActionExecutor::CloseStream(Stream& stream) {
  if (stream.reader != nullptr) {
    event_free(stream.reader);
    stream.reader = nullptr;
  }
  if (stream.fd >= 0) {
    close(stream.fd);
    stream.fd = -1;
  }
}

void LongActionExecutor::KillGroup(Child& child, Ending why) {
  if (child.ending == Ending::kNormal) child.ending = why;
  // The pid is also the group id; the group outlives a reaped shell while any
  // of its members (a background job) still runs.
  kill(-child.pid, SIGKILL);
  // Nothing more is wanted from a killed command, and a member that left the
  // group must not keep the record waiting for end of file.
  CloseStream(child.streams[0]);
  CloseStream(child.streams[1]);
}

void LongActionExecutor::OnReadable(int fd, short, void* arg) {
  Stream& stream = *static_cast<Stream*>(arg);
  Child& child = *stream.child;
  LongActionExecutor* self = child.owner;
  char buffer[kReadChunk];
  for (int i = 0; i < kReadsPerCallback; ++i) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
      self->CloseStream(stream);
      self->FinishIfDone(child);
      return;
    }
    size_t room = self->m_sLimits.output_limit - stream.data.size();
    if (static_cast<size_t>(n) > room) {
      stream.data.append(buffer, room);
      self->KillGroup(child, Ending::kOutputCut);
      self->FinishIfDone(child);
      return;
    }
    stream.data.append(buffer, static_cast<size_t>(n));
  }
}

void LongActionExecutor::OnTimeLimit(int, short, void* arg) {
  Child& child = *static_cast<Child*>(arg);
  LongActionExecutor* self = child.owner;
  self->m_pLog->Log(Logger::kInfo, "long action of machine %u (pid %d) passed its time limit of %u s",
                    child.machine_id, static_cast<int>(child.pid), self->m_sLimits.time_limit_sec);
  self->KillGroup(child, Ending::kTimedOut);
  self->FinishIfDone(child);
}

void LongActionExecutor::OnChildSignal(int, short, void* arg) {
  static_cast<LongActionExecutor*>(arg)->ReapChildren();
}

void LongActionExecutor::ReapChildren() {
  // One waitid per ended child instead of a waitpid for every running one:
  // with a thousand running, looking at each on every SIGCHLD cost more than
  // spawning them. The child that waitid shows is only peeked at (WNOWAIT)
  // and reaped when it is one of ours; a child that someone else in the
  // process started is left to them, and ours are then looked at one by one.
  for (;;) {
    siginfo_t info{};
    int rc = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
    if (rc < 0 && errno == EINTR) continue;
    if (rc != 0 || info.si_pid == 0) return;
    auto it = m_mapChildren.find(info.si_pid);
    if (it == m_mapChildren.end() || !Reap(*it->second)) break;
    FinishIfDone(*it->second);
  }
  std::vector<pid_t> reaped;
  for (auto& entry : m_mapChildren) {
    if (Reap(*entry.second)) reaped.push_back(entry.first);
  }
  for (pid_t pid : reaped) {
    auto it = m_mapChildren.find(pid);
    if (it != m_mapChildren.end()) FinishIfDone(*it->second);
  }
}

bool LongActionExecutor::Reap(Child& child) {
  if (child.reaped) return false;
  int status = 0;
  pid_t rc;
  do {
    rc = waitpid(child.pid, &status, WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc != child.pid && !(rc < 0 && errno == ECHILD)) return false;
  child.reaped = true;
  child.wait_status = status;
  return true;
}

zelvar::LongActionResult* LongActionExecutor::MakeRecord(Child& child) const {
  auto* record = new zelvar::LongActionResult();
  record->flow_no = child.flow_no;
  record->output = std::move(child.streams[0].data);
  std::string& stderrText = child.streams[1].data;
  switch (child.ending) {
    case Ending::kTimedOut:
      record->status = zelvar::LongActionResult::kStatusTimedOut;
      record->error = zelvar::FormatString("time limit of %u s reached, process group killed",
                                           m_sLimits.time_limit_sec);
      break;
    case Ending::kOutputCut:
      record->status = zelvar::LongActionResult::kStatusOutputCut;
      record->error = zelvar::FormatString("output passed the limit of %zu bytes, process group killed",
                                           m_sLimits.output_limit);
      break;
    case Ending::kNormal:
      record->status = zelvar::StatusOfWait(child.wait_status);
      record->error = std::move(stderrText);
      if (record->status != 0 && record->error.empty()) {
        record->error = zelvar::DescribeWaitStatus(child.wait_status);
      }
      break;
  }
  return record;
}

void LongActionExecutor::FinishIfDone(Child& child) {
  if (!child.reaped || child.streams[0].fd >= 0 || child.streams[1].fd >= 0) return;
  // A finished command leaves nothing behind: background jobs with their
  // output redirected would otherwise run on, adopted by init, one more set per
  // run. The group id stays reserved while any member lives, so this reaches
  // only the command's own processes.
  kill(-child.pid, SIGKILL);
  auto it = m_mapChildren.find(child.pid);
  std::unique_ptr<Child> owned = std::move(it->second);
  m_mapChildren.erase(it);
  if (owned->timer != nullptr) event_free(owned->timer);
  zelvar::LongActionResult* record = MakeRecord(*owned);
  uint32_t machineId = owned->machine_id;
  owned.reset();
  m_fnDeliver(machineId, record);
  StartQueued();
}

void LongActionExecutor::KillAll() {
  m_dqQueue.clear();
  for (auto& entry : m_mapChildren) {
    Child& child = *entry.second;
    KillGroup(child, Ending::kTimedOut);
    if (child.timer != nullptr) {
      event_free(child.timer);
      child.timer = nullptr;
    }
    if (!child.reaped) {
      while (waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }
  m_mapChildren.clear();
}

}  // namespace zelvar_host
