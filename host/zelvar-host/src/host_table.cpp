#include "host_table.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "host.h"
#include "zelvar/machine_factory.h"
#include "zelvar/message_pool.h"

namespace zelvar_host {
namespace {

using zelvar::StateMachine;
using zelvar::ZMessage;

const int64_t kNoTime = 0;

void Unused() {}

bool IsReady() {
  Host* host = Host::Current();
  return host != nullptr && host->IsReady();
}

void Log(int level, const char* format, ...) {
  Host* host = Host::Current();
  if (host == nullptr) return;
  va_list args;
  va_start(args, format);
  if (level >= Logger::kError && format != nullptr) {
    // Formatted here rather than in the logger, so the host can quote the line
    // when the plug-in then fails to start.
    va_list sizing;
    va_copy(sizing, args);
    const int length = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    std::string line(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&line[0], line.size() + 1, format, args);
    host->NoteErrorLine(line);
    host->Log().Write(level, line);
  } else {
    host->Log().VLog(level, format, args);
  }
  va_end(args);
}

int GetLogLevel() {
  Host* host = Host::Current();
  return host != nullptr ? host->Log().Threshold() : Logger::kError;
}

int GetLogFd() {
  Host* host = Host::Current();
  return host != nullptr ? host->Log().Fd() : 2;
}

void SetRoutinePeriod(unsigned microseconds) {
  if (Host* host = Host::Current()) host->SetRoutinePeriod(microseconds);
}

int GetConfigInt(const char* section, const char* key, int dflt) {
  Host* host = Host::Current();
  return host != nullptr ? host->Configuration().GetInt(section, key, dflt) : dflt;
}

const char* GetConfigString(const char* section, const char* key, const char* dflt) {
  Host* host = Host::Current();
  if (host == nullptr) return dflt != nullptr ? dflt : "";
  return host->Configuration().GetString(section, key, dflt);
}

void ListConfigKeys(const char* section, const char* regex, std::vector<std::string>* out) {
  Host* host = Host::Current();
  if (host == nullptr || section == nullptr || regex == nullptr || out == nullptr) return;
  if (!host->Configuration().ListKeys(section, regex, out)) {
    host->Log().Log(Logger::kError, "ListConfigKeys: \"%s\" is not a valid regular expression", regex);
  }
}

const int64_t* GetNow() {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr ? host->Clock().RefreshSeconds() : &kNoTime;
}

bufferevent* GetConnectionBev(uint64_t connA, uint64_t connB) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr ? host->Connections().Find(connA, connB) : nullptr;
}

int PostToMachine(ZMessage* message, StateMachine* target, unsigned id) {
  Host* host = Host::Current();
  if (host == nullptr) {
    zelvar::MessagePool::Instance()->Release(message);
    return -1;
  }
  return host->PostMessage(message, target, id);
}

int StartLongAction(zelvar::LongActionMethod* action, unsigned machineId, unsigned flowNo) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr ? host->LongActions().Start(action, machineId, flowNo) : -1;
}

int StartAioRead(int fd, uint64_t size, char* buffer, uint64_t offset, unsigned machineId, StateMachine* machine) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr
             ? host->Aio().Read(fd, size, buffer, offset, machineId, machine)
             : -1;
}

int StartAioWrite(int fd, uint64_t size, char* buffer, uint64_t offset, unsigned machineId, StateMachine* machine) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr
             ? host->Aio().Write(fd, size, buffer, offset, machineId, machine)
             : -1;
}

int StartAioFDSync(int fd, unsigned machineId) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr ? host->Aio().Sync(fd, machineId) : -1;
}

StateMachine* CreateMachineForMessage(unsigned messageType) {
  return zelvar::MachineFactory::Instance()->CreateMachine(messageType);
}

ZMessage* AcquireMessage(int) { return zelvar::MessagePool::Instance()->Acquire(); }

void ReleaseMessage(int, ZMessage* message) { zelvar::MessagePool::Instance()->Release(message); }

void* GetPluginHandle(const char* name) {
  Host* host = Host::Current();
  return host != nullptr ? host->GetPluginHandle(name) : nullptr;
}

bufferevent* ConnectTo(const char* ip, unsigned short port, unsigned) {
  Host* host = Host::Current();
  return host != nullptr && host->Base() != nullptr ? host->Connections().ConnectTo(ip, port) : nullptr;
}

event_base* GetEventBase() {
  Host* host = Host::Current();
  return host != nullptr ? host->Base() : nullptr;
}

int DeliverToMachine(unsigned machineId, void* record, void (*drop)(void*)) {
  Host* host = Host::Current();
  if (host == nullptr) {
    if (drop != nullptr && record != nullptr) drop(record);
    return -1;
  }
  return host->DeliverRecord(machineId, record, drop);
}

template <typename Fn>
zelvar::HostFunction Slot(Fn function) {
  return reinterpret_cast<zelvar::HostFunction>(function);
}

}  // namespace

void FillHostTable(zelvar::HostFunction* table) {
  for (int i = 0; i < zelvar::kHostSlotCount; ++i) table[i] = &Unused;
  table[zelvar::kSlotIsReady] = Slot<zelvar::IsReadyFn>(&IsReady);
  table[zelvar::kSlotLog] = Slot<zelvar::LogFn>(&Log);
  table[zelvar::kSlotGetLogLevel] = Slot<zelvar::GetLogLevelFn>(&GetLogLevel);
  table[zelvar::kSlotGetLogFd] = Slot<zelvar::GetLogFdFn>(&GetLogFd);
  table[zelvar::kSlotSetRoutinePeriod] = Slot<zelvar::SetRoutinePeriodFn>(&SetRoutinePeriod);
  table[zelvar::kSlotGetConfigInt] = Slot<zelvar::GetConfigIntFn>(&GetConfigInt);
  table[zelvar::kSlotGetConfigString] = Slot<zelvar::GetConfigStringFn>(&GetConfigString);
  table[zelvar::kSlotListConfigKeys] = Slot<zelvar::ListConfigKeysFn>(&ListConfigKeys);
  table[zelvar::kSlotGetNow] = Slot<zelvar::GetNowFn>(&GetNow);
  table[zelvar::kSlotGetConnectionBev] = Slot<zelvar::GetConnectionBevFn>(&GetConnectionBev);
  table[zelvar::kSlotPostToMachine] = Slot<zelvar::PostToMachineFn>(&PostToMachine);
  table[zelvar::kSlotStartLongAction] = Slot<zelvar::StartLongActionFn>(&StartLongAction);
  table[zelvar::kSlotStartAioRead] = Slot<zelvar::StartAioFn>(&StartAioRead);
  table[zelvar::kSlotStartAioWrite] = Slot<zelvar::StartAioFn>(&StartAioWrite);
  table[zelvar::kSlotStartAioFDSync] = Slot<zelvar::StartAioFDSyncFn>(&StartAioFDSync);
  table[zelvar::kSlotCreateMachineForMessage] = Slot<zelvar::CreateMachineForMessageFn>(&CreateMachineForMessage);
  table[zelvar::kSlotAcquireMessage] = Slot<zelvar::AcquireMessageFn>(&AcquireMessage);
  table[zelvar::kSlotReleaseMessage] = Slot<zelvar::ReleaseMessageFn>(&ReleaseMessage);
  table[zelvar::kSlotGetPluginHandle] = Slot<zelvar::GetPluginHandleFn>(&GetPluginHandle);
  table[zelvar::kSlotConnectTo] = Slot<zelvar::ConnectToFn>(&ConnectTo);
  table[zelvar::kSlotGetEventBase] = Slot<zelvar::GetEventBaseFn>(&GetEventBase);
  table[zelvar::kSlotDeliverToMachine] = Slot<zelvar::DeliverToMachineFn>(&DeliverToMachine);
}

}  // namespace zelvar_host
