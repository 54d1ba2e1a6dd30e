// AioService: the host's file AIO (read, write, sync) for machines.
//
// The operation itself runs at submission, on the loop thread: the files the
// machines use are local and small, and a plain pread/pwrite/fsync keeps every
// buffer's lifetime obvious. What makes it asynchronous for the machine is the
// delivery: the AioResult reaches the machine on a later loop turn, never
// inside the call that asked for it.
//
// Event-loop thread only. The service owns nothing; `deliver` takes each
// record.
#ifndef ZELVAR_HOST_AIO_SERVICE_H
#define ZELVAR_HOST_AIO_SERVICE_H

#include <cstdint>
#include <functional>

#include "zelvar/long_action.h"

namespace zelvar {
class StateMachine;
}

namespace zelvar_host {

class AioService {
 public:
  // Queues `result` for the machine (`machine` when non-null, else the live
  // machine `machineId`); returns 0, or -1 when there is no such machine (the
  // record is then freed).
  using Deliver = std::function<int(uint32_t machineId, zelvar::StateMachine* machine,
                                    zelvar::AioResult* result)>;

  explicit AioService(Deliver deliver) : m_fnDeliver(std::move(deliver)) {}

  // Each returns the request's flow number (1 and up, the same one the record
  // carries), or -1 when no machine is there to receive the record.
  int Read(int fd, uint64_t size, char* buffer, uint64_t offset, uint32_t machineId,
           zelvar::StateMachine* machine);
  int Write(int fd, uint64_t size, const char* buffer, uint64_t offset, uint32_t machineId,
            zelvar::StateMachine* machine);
  int Sync(int fd, uint32_t machineId);

 private:
  int Finish(int64_t result, uint32_t machineId, zelvar::StateMachine* machine);

  static constexpr uint32_t kMaxFlow = 0x7FFFFFFF;

  Deliver m_fnDeliver;
  uint32_t m_uNextFlow = 1;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_AIO_SERVICE_H
