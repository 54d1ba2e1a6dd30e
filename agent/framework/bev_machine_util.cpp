#include "framework/bev_machine_util.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <new>

#include "framework/evbuffer_zero_copy_stream.h"
#include "framework/host_api.h"
#include "zelvar/dorvan.pb.h"
#include "zelvar/frame.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message_util.h"
#include "zelvar/my_uuid.h"

using ovita2::HostFn;

uint32_t BEVMachineUtil::_flow_no = 0;

BEVMachineUtil::~BEVMachineUtil() { delete[] m_pFormatBuffer; }

int BEVMachineUtil::Timeout(bool) {
  ovita2::MachineLog(4, this, "Timeout occurred, delete myself");
  return zelvar::kMachineDone;
}

void BEVMachineUtil::PreTranslate(zelvar::InternalHead_t*, void*) {}

unsigned BEVMachineUtil::Flowno() { return _flow_no++; }

// ---------------------------------------------------------------------------
// Network
// ---------------------------------------------------------------------------

int BEVMachineUtil::SendRequest(const zelvar::ZMessage& msg, const char* ip, unsigned port, unsigned flag) {
  auto connectTo = HostFn<zelvar::ConnectToFn>(zelvar::kSlotConnectTo);
  bufferevent* bev = connectTo(ip, static_cast<unsigned short>(port), flag);
  if (bev == nullptr) return -1;
  if (ovita2::LogEnabled(1)) {
    ovita2::HostLog(1, "%s %s:%d\n%s", "to_proc_out", ip, static_cast<int>(port), msg.DebugString().c_str());
  }
  return SendMessageToBEV(msg, bev);
}

unsigned BEVMachineUtil::NewRequest(zelvar::ZMessage* message, unsigned type) {
  const unsigned flow = Flowno();
  zelvar::NewMessage(message, flow, zelvar::MyUuid::NewUuid(), type, 0, false, GetMachineId(), 0, nullptr, nullptr,
                     nullptr);
  return flow;
}

int BEVMachineUtil::SendRequestByAddr(const zelvar::ZMessage& msg, unsigned addr, unsigned port, unsigned flag) {
  in_addr address;
  address.s_addr = addr;
  return SendRequest(msg, inet_ntoa(address), port, flag);
}

int BEVMachineUtil::SendMessageToBEV(const zelvar::ZMessage& msg, bufferevent* bev) {
  evbufferZeroCopyOutputStream stream;
  msg.SerializeToZeroCopyStream(&stream);
  evbuffer* serialised = stream.Buffer();
  unsigned char prefix[zelvar::kFramePrefixSize];
  zelvar::PutFramePrefix(static_cast<uint32_t>(evbuffer_get_length(serialised)), prefix);
  evbuffer* output = bufferevent_get_output(bev);
  evbuffer_add(output, prefix, sizeof(prefix));
  evbuffer_add_buffer(output, serialised);
  return 0;
}

int BEVMachineUtil::SendMessageToConn(const zelvar::ZMessage& msg, uint64_t connA, uint64_t connB) {
  bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  if (bev == nullptr) return -1;
  return SendMessageToBEV(msg, bev);
}

int BEVMachineUtil::SendResponse(const zelvar::ZMessage& msg) {
  if (GetRequesterId() != zelvar::kNoMachineId) {
    return SendInternalResponse(msg, GetMachineId(), GetRequesterId());
  }
  if (ovita2::LogEnabled(1)) {
    bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(m_u64ConnA, m_u64ConnB);
    if (bev != nullptr) {
      // Only probes that the socket still has a peer; the address is for a
      // debugger's eyes.
      sockaddr_storage peer;
      socklen_t length = sizeof(peer);
      getpeername(bufferevent_getfd(bev), reinterpret_cast<sockaddr*>(&peer), &length);
    } else {
      ovita2::MachineLog(1, this, "Can't get request fd");
    }
  }
  return SendMessageToConn(msg, m_u64ConnA, m_u64ConnB);
}

int BEVMachineUtil::SendResponseTo(const zelvar::ZMessage& msg, uint64_t connA, uint64_t connB, unsigned fromId,
                                   unsigned toId) {
  if (fromId == zelvar::kNoMachineId) fromId = GetMachineId();
  if (toId != zelvar::kNoMachineId) return SendInternalResponse(msg, fromId, toId);
  if (GetRequesterId() == zelvar::kNoMachineId) return SendMessageToConn(msg, connA, connB);
  return SendInternalResponse(msg, fromId, GetRequesterId());
}

// ---------------------------------------------------------------------------
// Inside the process
// ---------------------------------------------------------------------------

zelvar::ZMessage* BEVMachineUtil::CopyForPosting(const zelvar::ZMessage& msg) {
  zelvar::ZMessage* copy = HostFn<zelvar::AcquireMessageFn>(zelvar::kSlotAcquireMessage)(0);
  if (copy != nullptr) {
    // Rebuilt rather than cleared: cleared fields keep their allocations, and
    // a recycled envelope that once carried a large body would keep it.
    copy->~ZMessage();
    new (copy) zelvar::ZMessage();
  } else {
    copy = new zelvar::ZMessage();
  }
  copy->CopyFrom(msg);
  return copy;
}

int BEVMachineUtil::SendInternalRequest(const zelvar::ZMessage& msg) {
  zelvar::ZMessage* copy = CopyForPosting(msg);
  auto create = HostFn<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage);
  zelvar::StateMachine* target = create(copy->head().message_type());
  if (target == nullptr) {
    delete copy;
    return -1;
  }
  target->SetRequesterId(GetMachineId());
  return HostFn<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(copy, target, zelvar::kNoMachineId);
}

int BEVMachineUtil::SendInternalResponse(const zelvar::ZMessage& msg, unsigned, unsigned toId) {
  zelvar::ZMessage* copy = CopyForPosting(msg);
  zelvar::StateMachine* target = zelvar::MachinePool::Instance()->GetMachine(toId);
  if (target == nullptr) {
    delete copy;
    return -1;
  }
  return HostFn<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(copy, target, target->GetMachineId());
}

// ---------------------------------------------------------------------------
// Raw bytes
// ---------------------------------------------------------------------------

int BEVMachineUtil::SendBuffer(const char* data, unsigned length, bufferevent* bev) {
  if (bev == nullptr || data == nullptr) return -1;
  if (length == 0) return 0;
  return evbuffer_add(bufferevent_get_output(bev), data, length) == 0 ? 0 : -1;
}

int BEVMachineUtil::SendBuffer(const char* data, unsigned length, uint64_t connA, uint64_t connB) {
  bufferevent* bev = HostFn<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  if (bev == nullptr) return -1;
  return SendBuffer(data, length, bev);
}

int BEVMachineUtil::SendBuffer(const std::string& data, uint64_t connA, uint64_t connB) {
  return SendBuffer(data.data(), static_cast<unsigned>(data.size()), connA, connB);
}

// ---------------------------------------------------------------------------
// Database service
// ---------------------------------------------------------------------------

int BEVMachineUtil::FormatInto(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(m_pFormatBuffer, m_uFormatCapacity, format, args);
  // ">=": a text of exactly the capacity has no room for its terminator.
  if (length >= 0 && static_cast<unsigned>(length) >= m_uFormatCapacity) {
    m_uFormatCapacity = static_cast<unsigned>(length) * 2;
    delete[] m_pFormatBuffer;
    m_pFormatBuffer = new char[m_uFormatCapacity];
    length = std::vsnprintf(m_pFormatBuffer, m_uFormatCapacity, format, again);
  }
  va_end(again);
  return length < 0 ? 0 : length;
}

unsigned BEVMachineUtil::vSendSql(const char* ip, unsigned port, const char* db, unsigned flag, const char* format,
                                  va_list args) {
  int length = FormatInto(format, args);
  static zelvar::ZMessage envelope;
  envelope.Clear();
  const unsigned flow = NewRequest(&envelope, kSqlRequestType);
  auto* request = envelope.mutable_body()->MutableExtension(zelvar::dorvan::execute_sql_request);
  request->set_db(db);
  request->set_sql(length > 0 ? std::string(m_pFormatBuffer, static_cast<size_t>(length)) : std::string());
  // The database service reads the flag the other way round.
  request->set_flag(flag != 0 ? 0 : 1);
  SendRequest(envelope, ip, port, 0);
  return flow;
}

unsigned BEVMachineUtil::SendSql(const char* ip, unsigned port, const char* db, unsigned flag, const char* format,
                                 ...) {
  va_list args;
  va_start(args, format);
  unsigned flow = vSendSql(ip, port, db, flag, format, args);
  va_end(args);
  return flow;
}

unsigned BEVMachineUtil::SendSql(const char* ip, unsigned port, const char* db, const char* format, ...) {
  va_list args;
  va_start(args, format);
  unsigned flow = vSendSql(ip, port, db, 1, format, args);
  va_end(args);
  return flow;
}

unsigned BEVMachineUtil::SendSql(const char* ip, unsigned port, const char* db, const std::string& sql) {
  return SendSql(ip, port, db, 1, "%s", sql.c_str());
}

unsigned BEVMachineUtil::SendSql(const char*, unsigned, const char*, unsigned, const std::string&) {
  return Flowno();
}

unsigned BEVMachineUtil::ReplaceBlob(const char* ip, unsigned port, const char* name, const std::string& blob,
                                     const char* format, ...) {
  va_list args;
  va_start(args, format);
  int length = FormatInto(format, args);
  va_end(args);
  // Not cleared between uses: NewRequest and the setters below overwrite
  // every field this request carries.
  static zelvar::ZMessage envelope;
  const unsigned flow = NewRequest(&envelope, kReplaceBlobRequestType);
  auto* request = envelope.mutable_body()->MutableExtension(zelvar::dorvan::replace_blob_request);
  request->set_name(name);
  request->set_text(length > 0 ? std::string(m_pFormatBuffer, static_cast<size_t>(length)) : std::string());
  request->set_blob(blob);
  SendRequest(envelope, ip, port, 0);
  return flow;
}

// ---------------------------------------------------------------------------
// Host actions
// ---------------------------------------------------------------------------

unsigned BEVMachineUtil::SendLongAction(zelvar::LongActionMethod* action) {
  unsigned flow = Flowno();
  HostFn<zelvar::StartLongActionFn>(zelvar::kSlotStartLongAction)(action, GetMachineId(), flow);
  return flow;
}

unsigned BEVMachineUtil::SendLongAction2(zelvar::LongActionMethod*) { return Flowno(); }

int BEVMachineUtil::SendAioRead(int fd, char* buffer, uint64_t size, uint64_t offset) {
  return HostFn<zelvar::StartAioFn>(zelvar::kSlotStartAioRead)(fd, size, buffer, offset, GetMachineId(), this);
}

int BEVMachineUtil::SendAioWrite(int fd, char* buffer, uint64_t size, uint64_t offset) {
  return HostFn<zelvar::StartAioFn>(zelvar::kSlotStartAioWrite)(fd, size, buffer, offset, GetMachineId(), this);
}

int BEVMachineUtil::SendAioFDSync(int fd) {
  return HostFn<zelvar::StartAioFDSyncFn>(zelvar::kSlotStartAioFDSync)(fd, GetMachineId());
}
