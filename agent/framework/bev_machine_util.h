// BEVMachineUtil: the base class of every agent machine. It gives a machine
// one vocabulary for everything it sends: requests to remote services,
// responses to whoever asked (over the network or inside this process),
// messages to other machines, SQL text and blobs for a database service, and
// long or file actions the host runs away from the event loop.
//
// Every machine inherits the common Timeout: an error line, then the machine
// ends. Flow numbers come from one process-wide counter (Flowno).
//
// Ownership: messages passed in are borrowed and only read; internal sends
// copy them into an envelope the host takes over. A machine owns its format
// buffer. Event-loop thread only; the flow counter and the two reused
// envelopes of the SQL and blob senders are unsynchronised on purpose.
#ifndef OVITA2_AGENT_FRAMEWORK_BEV_MACHINE_UTIL_H
#define OVITA2_AGENT_FRAMEWORK_BEV_MACHINE_UTIL_H

#include <cstdarg>
#include <cstdint>
#include <string>

#include "zelvar/message.pb.h"
#include "zelvar/state_machine.h"

struct bufferevent;

namespace zelvar {
class LongActionMethod;
}

class BEVMachineUtil : public zelvar::StateMachine {
 public:
  static constexpr uint32_t kSqlRequestType = 1000;
  static constexpr uint32_t kReplaceBlobRequestType = 1010;

  BEVMachineUtil() = default;
  ~BEVMachineUtil() override;

  // "Timeout occurred, delete myself" at level 4, and the machine ends.
  int Timeout(bool machineTimeout) override;
  void PreTranslate(zelvar::InternalHead_t* head, void* data) override;

  // The next flow number of the process, from 0, wrapping at 2^32.
  static unsigned Flowno();
  // Fills the head of a request of `type` from this machine: a new flow
  // number (returned) and session. The body is the caller's.
  unsigned NewRequest(zelvar::ZMessage* message, unsigned type);

  // The connection a request arrived on, for SendResponse; set by OnDataIn
  // on a machine created to serve an inbound request.
  void SetReplyConnection(uint64_t connA, uint64_t connB) {
    m_u64ConnA = connA;
    m_u64ConnB = connB;
  }
  uint64_t ReplyConnA() const { return m_u64ConnA; }
  uint64_t ReplyConnB() const { return m_u64ConnB; }

  // --- network --------------------------------------------------------------
  // Frames `msg` onto the host's connection to ip:port (port cut to 16 bits).
  int SendRequest(const zelvar::ZMessage& msg, const char* ip, unsigned port, unsigned flag);
  // As SendRequest; `addr` is an IPv4 address in network byte order.
  int SendRequestByAddr(const zelvar::ZMessage& msg, unsigned addr, unsigned port, unsigned flag);
  static int SendMessageToBEV(const zelvar::ZMessage& msg, bufferevent* bev);
  int SendMessageToConn(const zelvar::ZMessage& msg, uint64_t connA, uint64_t connB);
  // Answers the machine that asked from inside this process, else the reply
  // connection.
  int SendResponse(const zelvar::ZMessage& msg);
  // fromId and toId of 0xFFFFFFFF mean "this machine" and "whoever asked".
  int SendResponseTo(const zelvar::ZMessage& msg, uint64_t connA, uint64_t connB, unsigned fromId,
                     unsigned toId);

  // --- inside the process -----------------------------------------------------
  // A new machine serving msg's type receives a copy; this machine becomes
  // its requester.
  int SendInternalRequest(const zelvar::ZMessage& msg);
  // The live machine toId receives a copy. fromId is not used.
  int SendInternalResponse(const zelvar::ZMessage& msg, unsigned fromId, unsigned toId);

  // --- raw bytes, no frame ------------------------------------------------------
  static int SendBuffer(const char* data, unsigned length, bufferevent* bev);
  static int SendBuffer(const char* data, unsigned length, uint64_t connA, uint64_t connB);
  static int SendBuffer(const std::string& data, uint64_t connA, uint64_t connB);

  // --- database service: each returns the request's flow number -------------------
  unsigned vSendSql(const char* ip, unsigned port, const char* db, unsigned flag, const char* format,
                    va_list args);
  unsigned SendSql(const char* ip, unsigned port, const char* db, unsigned flag, const char* format, ...)
      __attribute__((format(printf, 6, 7)));
  unsigned SendSql(const char* ip, unsigned port, const char* db, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  unsigned SendSql(const char* ip, unsigned port, const char* db, const std::string& sql);
  // Sends nothing: takes a flow number only. Kept for callers of the full
  // interface.
  unsigned SendSql(const char* ip, unsigned port, const char* db, unsigned flag, const std::string& sql);
  unsigned ReplaceBlob(const char* ip, unsigned port, const char* name, const std::string& blob,
                       const char* format, ...) __attribute__((format(printf, 6, 7)));

  // --- host actions ---------------------------------------------------------------
  // Hands `action` to the host; its completion comes back to this machine
  // under the returned flow number.
  unsigned SendLongAction(zelvar::LongActionMethod* action);
  // Takes a flow number and starts nothing.
  unsigned SendLongAction2(zelvar::LongActionMethod* action);
  int SendAioRead(int fd, char* buffer, uint64_t size, uint64_t offset);
  int SendAioWrite(int fd, char* buffer, uint64_t size, uint64_t offset);
  int SendAioFDSync(int fd);

  unsigned FormatCapacity() const { return m_uFormatCapacity; }

 private:
  // Formats into the machine's buffer, growing it when the text does not
  // fit; returns the text's length.
  int FormatInto(const char* format, va_list args);
  static zelvar::ZMessage* CopyForPosting(const zelvar::ZMessage& msg);

  static uint32_t _flow_no;

  uint64_t m_u64ConnA = 0;
  uint64_t m_u64ConnB = 0;
  char* m_pFormatBuffer = nullptr;
  unsigned m_uFormatCapacity = 0;
};

#endif  // OVITA2_AGENT_FRAMEWORK_BEV_MACHINE_UTIL_H
