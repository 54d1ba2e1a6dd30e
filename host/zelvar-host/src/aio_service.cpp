#include "aio_service.h"

#include <unistd.h>

#include <cerrno>

namespace zelvar_host {

int AioService::Finish(int64_t result, uint32_t machineId, zelvar::StateMachine* machine) {
  auto* record = new zelvar::AioResult();
  record->result = result;
  record->error = result < 0 ? errno : 0;
  uint32_t flow = m_uNextFlow;
  m_uNextFlow = m_uNextFlow % kMaxFlow + 1;
  record->flow_no = flow;
  return m_fnDeliver(machineId, machine, record) < 0 ? -1 : static_cast<int>(flow);
}

int AioService::Read(int fd, uint64_t size, char* buffer, uint64_t offset, uint32_t machineId,
                     zelvar::StateMachine* machine) {
  ssize_t n;
  do {
    n = pread(fd, buffer, size, static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  return Finish(n, machineId, machine);
}

int AioService::Write(int fd, uint64_t size, const char* buffer, uint64_t offset, uint32_t machineId,
                      zelvar::StateMachine* machine) {
  ssize_t n;
  do {
    n = pwrite(fd, buffer, size, static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  return Finish(n, machineId, machine);
}

int AioService::Sync(int fd, uint32_t machineId) {
  int rc = fsync(fd);
  return Finish(rc, machineId, nullptr);
}

}  // namespace zelvar_host
