// AgentLink: one framed request and its answer (see agent_link.h).
#include "client/agent_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <sstream>

#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/my_uuid.h"
#include "zelvar/ovita2.pb.h"

namespace controlplane {
namespace {

using Clock = std::chrono::steady_clock;

// Far above any answer to a switch request; a larger length means the peer is
// not speaking this protocol, and the client should not try to allocate it.
constexpr uint32_t kLargestAnswer = 16u << 20;

// Switch operations of an enable_real_time_monitor_request.
constexpr uint32_t kOperationEnable = 0;
constexpr uint32_t kOperationDisable = 1;

class Socket {
 public:
  explicit Socket(int fd) : m_iFd(fd) {}
  ~Socket() {
    if (m_iFd >= 0) ::close(m_iFd);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int Fd() const { return m_iFd; }

 private:
  int m_iFd;
};

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

int MillisecondsLeft(Clock::time_point deadline) {
  auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) return 0;
  return left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

// True once `fd` is ready for `events` (or has an error the next call will
// report); false when the deadline passed first.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd watched{fd, events, 0};
    int ready = ::poll(&watched, 1, MillisecondsLeft(deadline));
    if (ready < 0 && errno == EINTR) continue;
    return ready != 0;
  }
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

bool Connect(int fd, const sockaddr_storage& target, socklen_t length, const std::string& address,
             Clock::time_point deadline, std::string* error) {
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), length) != 0 && errno != EINPROGRESS) {
    return SetError(error, address + ": cannot connect: " + std::strerror(errno));
  }
  if (!WaitFor(fd, POLLOUT, deadline)) return SetError(error, address + ": cannot connect: no connection in time");
  int failure = 0;
  socklen_t failureSize = sizeof(failure);
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &failureSize) != 0) failure = errno;
  if (failure != 0) return SetError(error, address + ": cannot connect: " + std::strerror(failure));
  return true;
}

bool SendAll(int fd, const std::string& bytes, const std::string& address, Clock::time_point deadline,
             std::string* error) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    if (!WaitFor(fd, POLLOUT, deadline)) return SetError(error, address + " did not take the request in time");
    ssize_t written = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (written >= 0) {
      sent += static_cast<size_t>(written);
    } else if (IsPeerGone(errno)) {
      return SetError(error, address + " closed the connection without answering");
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return SetError(error, address + ": cannot send the request: " + std::strerror(errno));
    }
  }
  return true;
}

enum class Received { kAll, kClosed, kTimedOut, kFailed };

Received ReceiveExactly(int fd, char* buffer, size_t size, Clock::time_point deadline, int* errorNumber) {
  size_t got = 0;
  while (got < size) {
    if (!WaitFor(fd, POLLIN, deadline)) return Received::kTimedOut;
    ssize_t read = ::recv(fd, buffer + got, size - got, 0);
    if (read > 0) {
      got += static_cast<size_t>(read);
    } else if (read == 0 || IsPeerGone(errno)) {
      return Received::kClosed;
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      *errorNumber = errno;
      return Received::kFailed;
    }
  }
  return Received::kAll;
}

// The message for a frame part that did not arrive whole; `closed` says what a
// closed connection means at this point of the answer.
bool ReceiveFailure(Received result, int errorNumber, const std::string& address, const char* closed,
                    std::chrono::milliseconds timeout, std::string* error) {
  switch (result) {
    case Received::kClosed:
      return SetError(error, address + " " + closed);
    case Received::kTimedOut:
      return SetError(error, address + " did not answer " + WithinSeconds(timeout));
    default:
      return SetError(error, address + ": cannot receive the answer: " + std::strerror(errorNumber));
  }
}

bool ReceiveFrame(int fd, const std::string& address, Clock::time_point deadline, std::chrono::milliseconds timeout,
                  zelvar::ZMessage* answer, std::string* error) {
  unsigned char header[zelvar::kFramePrefixSize];
  int errorNumber = 0;
  Received result = ReceiveExactly(fd, reinterpret_cast<char*>(header), sizeof(header), deadline, &errorNumber);
  if (result != Received::kAll) {
    return ReceiveFailure(result, errorNumber, address, "closed the connection without answering", timeout, error);
  }
  uint32_t size = zelvar::FrameBodyLength(header);
  if (size > kLargestAnswer) {
    return SetError(error, address + " sent a frame of " + std::to_string(size) +
                               " bytes, too large for an answer (is it an agent?)");
  }
  std::string body(size, '\0');
  result = ReceiveExactly(fd, body.data(), body.size(), deadline, &errorNumber);
  if (result != Received::kAll) {
    return ReceiveFailure(result, errorNumber, address, "closed the connection in the middle of its answer", timeout,
                          error);
  }
  if (!answer->ParseFromString(body)) return SetError(error, address + " sent an answer that cannot be decoded");
  return true;
}

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
  const Clock::time_point deadline = Clock::now() + timeout;
  socklen_t length = 0;
  const sockaddr_storage target = SocketAddress(*endpoint, &length);
  Socket socket(::socket(target.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.Fd() < 0) return SetError(error, address + ": cannot connect: " + std::strerror(errno));
  return Connect(socket.Fd(), target, length, address, deadline, error) &&
         SendAll(socket.Fd(), zelvar::EncodeFrame(request), address, deadline, error) &&
         ReceiveFrame(socket.Fd(), address, deadline, timeout, answer, error);
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
