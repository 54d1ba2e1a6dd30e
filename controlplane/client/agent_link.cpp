// AgentLink: one framed request and its answer (see agent_link.h).
#include "client/agent_link.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>

#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/my_uuid.h"
#include "zelvar/ovita2.pb.h"

namespace controlplane {
namespace {

// Far above any answer to a switch request; a larger length means the peer is
// not speaking this protocol, and the client should not wait for it.
constexpr uint32_t kLargestAnswer = 16u << 20;

// Switch operations of an enable_real_time_monitor_request.
constexpr uint32_t kOperationEnable = 0;
constexpr uint32_t kOperationDisable = 1;

bool SetError(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return false;
}

bool ParsePort(const std::string& text, uint16_t* port) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  unsigned long value = std::stoul(text);
  if (value == 0 || value > 65535) return false;
  *port = static_cast<uint16_t>(value);
  return true;
}

std::string WithinSeconds(std::chrono::milliseconds timeout) {
  std::ostringstream text;
  text << "within " << static_cast<double>(timeout.count()) / 1000.0 << " s";
  return text.str();
}

// A peer that closes with our request unread resets the connection instead of
// closing it: to the user both mean it went away without answering.
bool IsPeerGone(int errorNumber) {
  return errorNumber == ECONNRESET || errorNumber == EPIPE || errorNumber == ECONNABORTED;
}

sockaddr_storage SocketAddress(const AgentEndpoint& endpoint, socklen_t* length) {
  sockaddr_storage storage{};
  if (endpoint.m_bIpv6) {
    auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
    ipv6->sin6_family = AF_INET6;
    ipv6->sin6_port = htons(endpoint.m_uPort);
    ::inet_pton(AF_INET6, endpoint.m_strHost.c_str(), &ipv6->sin6_addr);
    *length = sizeof(sockaddr_in6);
  } else {
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
    ipv4->sin_family = AF_INET;
    ipv4->sin_port = htons(endpoint.m_uPort);
    ::inet_pton(AF_INET, endpoint.m_strHost.c_str(), &ipv4->sin_addr);
    *length = sizeof(sockaddr_in);
  }
  return storage;
}

// libevent writes with writev, which raises SIGPIPE on a closed connection;
// the client reports that as an answer that never came, so the signal is held
// back on this thread for the exchange and a pending one is swallowed.
class SigpipeHeld {
 public:
  SigpipeHeld() {
    sigemptyset(&m_sPipe);
    sigaddset(&m_sPipe, SIGPIPE);
    sigpending(&m_sPendingBefore);
    pthread_sigmask(SIG_BLOCK, &m_sPipe, &m_sPrevious);
  }
  ~SigpipeHeld() {
    sigset_t pending;
    sigpending(&pending);
    const timespec now{0, 0};
    if (sigismember(&pending, SIGPIPE) && !sigismember(&m_sPendingBefore, SIGPIPE))
      sigtimedwait(&m_sPipe, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &m_sPrevious, nullptr);
  }
  SigpipeHeld(const SigpipeHeld&) = delete;
  SigpipeHeld& operator=(const SigpipeHeld&) = delete;

 private:
  sigset_t m_sPipe, m_sPendingBefore, m_sPrevious;
};

// One request and its answer on a private event base: the frame goes out as
// soon as the connection is up, the answer is cut with the frame codec, and
// one timer ends the whole exchange.
class Exchange {
 public:
  Exchange(const std::string& address, std::chrono::milliseconds timeout, zelvar::ZMessage* answer)
      : m_strAddress(address), m_sTimeout(timeout), m_pAnswer(answer) {}

  // `fd` is connecting (non-blocking) and is owned from here on.
  bool Run(int fd, const zelvar::ZMessage& request, std::string* error) {
    m_pBase.reset(event_base_new());
    bufferevent* bev = m_pBase ? bufferevent_socket_new(m_pBase.get(), fd, BEV_OPT_CLOSE_ON_FREE) : nullptr;
    if (bev == nullptr) {
      ::close(fd);
      return SetError(error, m_strAddress + ": cannot connect: no event loop");
    }
    m_pBev.reset(bev);
    m_pTimer.reset(evtimer_new(m_pBase.get(), &Exchange::OnTimeout, this));
    const auto ms = m_sTimeout.count();
    const timeval limit{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    const std::string frame = zelvar::EncodeFrame(request);
    bufferevent_setcb(bev, &Exchange::OnRead, nullptr, &Exchange::OnEvent, this);
    if (m_pTimer == nullptr || evtimer_add(m_pTimer.get(), &limit) != 0 ||
        bufferevent_enable(bev, EV_READ | EV_WRITE) != 0 || bufferevent_socket_connect(bev, nullptr, 0) != 0 ||
        bufferevent_write(bev, frame.data(), frame.size()) != 0) {
      return SetError(error, m_strAddress + ": cannot connect: " + std::strerror(errno));
    }
    SigpipeHeld held;
    event_base_dispatch(m_pBase.get());
    return m_strFailure.empty() || SetError(error, m_strFailure);
  }

 private:
  template <typename T, void (*Free)(T*)>
  struct Freer {
    void operator()(T* object) const { Free(object); }
  };

  static void OnRead(bufferevent*, void* self) { static_cast<Exchange*>(self)->ReadAnswer(); }
  static void OnEvent(bufferevent*, short what, void* self) { static_cast<Exchange*>(self)->Closed(what); }
  static void OnTimeout(evutil_socket_t, short, void* self) { static_cast<Exchange*>(self)->TimedOut(); }

  void ReadAnswer() {
    evbuffer* input = bufferevent_get_input(m_pBev.get());
    const unsigned char* prefix = evbuffer_pullup(input, zelvar::kFramePrefixSize);
    if (prefix != nullptr && zelvar::FrameBodyLength(prefix) > kLargestAnswer) {
      return Finish(m_strAddress + " sent a frame of " + std::to_string(zelvar::FrameBodyLength(prefix)) +
                    " bytes, too large for an answer (is it an agent?)");
    }
    const zelvar::FrameCut cut = zelvar::CutFrame(input);
    if (cut.outcome == zelvar::FrameCut::kNeedMore) return;
    const bool decoded = cut.outcome == zelvar::FrameCut::kOneFrame && zelvar::TakeFrame(input, cut, m_pAnswer);
    Finish(decoded ? "" : m_strAddress + " sent an answer that cannot be decoded");
  }

  void Closed(short what) {
    const int errorNumber = EVUTIL_SOCKET_ERROR();
    if (what & BEV_EVENT_CONNECTED) {
      m_bConnected = true;
    } else if (!m_bConnected) {
      Finish(m_strAddress + ": cannot connect: " + std::strerror(errorNumber));
    } else if ((what & BEV_EVENT_EOF) || IsPeerGone(errorNumber)) {
      const bool headRead = evbuffer_get_length(bufferevent_get_input(m_pBev.get())) >= zelvar::kFramePrefixSize;
      Finish(m_strAddress + (headRead ? " closed the connection in the middle of its answer"
                                      : " closed the connection without answering"));
    } else {
      Finish(m_strAddress +
             ((what & BEV_EVENT_WRITING) ? ": cannot send the request: " : ": cannot receive the answer: ") +
             std::strerror(errorNumber));
    }
  }

  void TimedOut() {
    if (!m_bConnected) return Finish(m_strAddress + ": cannot connect: no connection in time");
    if (evbuffer_get_length(bufferevent_get_output(m_pBev.get())) > 0) {
      return Finish(m_strAddress + " did not take the request in time");
    }
    Finish(m_strAddress + " did not answer " + WithinSeconds(m_sTimeout));
  }

  // The first end counts; `failure` is empty for an answer.
  void Finish(std::string failure) {
    if (m_bFinished) return;
    m_bFinished = true;
    m_strFailure = std::move(failure);
    event_base_loopbreak(m_pBase.get());
  }

  const std::string m_strAddress;
  const std::chrono::milliseconds m_sTimeout;
  zelvar::ZMessage* m_pAnswer;
  // Declared first so that it is freed last.
  std::unique_ptr<event_base, Freer<event_base, event_base_free>> m_pBase;
  std::unique_ptr<bufferevent, Freer<bufferevent, bufferevent_free>> m_pBev;
  std::unique_ptr<event, Freer<event, event_free>> m_pTimer;
  bool m_bConnected = false;
  bool m_bFinished = false;
  std::string m_strFailure;
};

}  // namespace

std::optional<AgentEndpoint> ParseAgentAddress(const std::string& text, std::string* error) {
  AgentEndpoint endpoint;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    size_t close = text.find("]:");
    if (close == std::string::npos) {
      SetError(error, "'" + text + "' is not ip:port or [ipv6]:port");
      return std::nullopt;
    }
    endpoint.m_bIpv6 = true;
    endpoint.m_strHost = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    size_t colon = text.find(':');
    if (colon == std::string::npos) {
      SetError(error, "'" + text + "' is not ip:port or [ipv6]:port");
      return std::nullopt;
    }
    endpoint.m_strHost = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  unsigned char parsed[sizeof(in6_addr)];
  if (::inet_pton(endpoint.m_bIpv6 ? AF_INET6 : AF_INET, endpoint.m_strHost.c_str(), parsed) != 1) {
    SetError(error, "'" + endpoint.m_strHost + "' in '" + text + "' is not a numeric " +
                        (endpoint.m_bIpv6 ? "IPv6" : "IPv4") + " address");
    return std::nullopt;
  }
  if (!ParsePort(port, &endpoint.m_uPort)) {
    SetError(error, "'" + port + "' in '" + text + "' is not a port from 1 to 65535");
    return std::nullopt;
  }
  return endpoint;
}

bool ExchangeWithAgent(const std::string& address, const zelvar::ZMessage& request,
                       std::chrono::milliseconds timeout, zelvar::ZMessage* answer, std::string* error) {
  std::optional<AgentEndpoint> endpoint = ParseAgentAddress(address, error);
  if (!endpoint) return false;
  socklen_t length = 0;
  const sockaddr_storage target = SocketAddress(*endpoint, &length);
  const int fd = ::socket(target.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return SetError(error, address + ": cannot connect: " + std::strerror(errno));
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), length) != 0 && errno != EINPROGRESS) {
    const int failure = errno;
    ::close(fd);
    return SetError(error, address + ": cannot connect: " + std::strerror(failure));
  }
  return Exchange(address, timeout, answer).Run(fd, request, error);
}

SwitchOutcome SwitchRealTimeMonitor(const std::string& address, uint32_t itemId, bool enable,
                                    std::chrono::milliseconds timeout) {
  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 1, zelvar::MyUuid::NewUuid(), zelvar::ovita2::ENABLE_REAL_TIME_MONITOR_REQUEST, 0,
                     false, 0, 0, nullptr, nullptr, nullptr);
  auto* asked = request.mutable_body()->MutableExtension(zelvar::ovita2::enable_real_time_monitor_request);
  asked->set_item_id(itemId);
  asked->set_operation(enable ? kOperationEnable : kOperationDisable);

  SwitchOutcome outcome;
  zelvar::ZMessage answer;
  if (!ExchangeWithAgent(address, request, timeout, &answer, &outcome.m_strMessage)) return outcome;
  const uint32_t type = answer.head().message_type();
  if (type != zelvar::ovita2::ENABLE_REAL_TIME_MONITOR_RESPONSE) {
    outcome.m_strMessage = address + " answered with a message of type " + std::to_string(type) + ", not " +
                           std::to_string(zelvar::ovita2::ENABLE_REAL_TIME_MONITOR_RESPONSE);
    return outcome;
  }
  if (!answer.body().HasExtension(zelvar::ovita2::enable_real_time_monitor_response)) {
    outcome.m_strMessage = address + " answered without the response to a switch request";
    return outcome;
  }
  const zelvar::ResponseCode& code = answer.body().GetExtension(zelvar::ovita2::enable_real_time_monitor_response).rc();
  outcome.m_eKind = code.code() == 0 ? SwitchOutcome::Kind::kDone : SwitchOutcome::Kind::kRefused;
  outcome.m_iCode = code.code();
  outcome.m_strMessage = code.msg();
  return outcome;
}

}  // namespace controlplane
