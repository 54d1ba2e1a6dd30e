#include "fake_services.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/tellar2.pb.h"

namespace integration {
namespace {

constexpr const char* kLoopback = "127.0.0.1";

}  // namespace

FakeServices::FakeServices() {
  m_iListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(m_iListenFd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(m_iListenFd, 16) != 0 ||
      getsockname(m_iListenFd, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      pipe2(m_arrStopPipe, O_CLOEXEC) != 0) {
    close(m_iListenFd);
    m_iListenFd = -1;
    return;
  }
  m_iPort = ntohs(address.sin_port);
  m_iNamedPort = m_iPort;
  m_sThread = std::thread([this] { Serve(); });
}

FakeServices::~FakeServices() {
  if (m_sThread.joinable()) {
    (void)!write(m_arrStopPipe[1], "x", 1);
    m_sThread.join();
  }
  for (int fd : {m_iListenFd, m_arrStopPipe[0], m_arrStopPipe[1]}) {
    if (fd >= 0) close(fd);
  }
}

void FakeServices::SetJobs(const zelvar::ovita2::GetJobResponse& jobs) {
  std::lock_guard<std::mutex> lock(m_sMutex);
  m_sJobs = jobs;
}

std::vector<zelvar::ZMessage> FakeServices::Received(unsigned messageType) const {
  std::lock_guard<std::mutex> lock(m_sMutex);
  std::vector<zelvar::ZMessage> found;
  auto range = m_mapReceived.equal_range(messageType);
  for (auto it = range.first; it != range.second; ++it) found.push_back(it->second);
  return found;
}

bool FakeServices::Answer(const zelvar::ZMessage& request, zelvar::ZMessage* reply) {
  namespace ov = zelvar::ovita2;
  namespace tl = zelvar::tellar2;
  unsigned type = request.head().message_type();
  std::lock_guard<std::mutex> lock(m_sMutex);
  m_mapReceived.emplace(type, request);
  zelvar::Body* body = reply->mutable_body();
  switch (type) {
    case ov::GET_TASK_QUEUE_REQUEST: {
      auto* answer = body->MutableExtension(ov::get_task_queue_response);
      answer->mutable_rc()->set_code(0);
      answer->set_name("tq-1");
      answer->set_ip(kLoopback);
      answer->set_port(m_iNamedPort);
      break;
    }
    case ov::GET_AGGREGATION_REQUEST: {
      auto* answer = body->MutableExtension(ov::get_aggregation_response);
      answer->mutable_rc()->set_code(0);
      answer->set_name("aggr-1");
      answer->set_ip(kLoopback);
      answer->set_port(m_iNamedPort);
      break;
    }
    case ov::GET_JOB_REQUEST:
      *body->MutableExtension(ov::get_job_response) = m_sJobs;
      break;
    case ov::RECORD_STATS_REQUEST:
      body->MutableExtension(tl::record_stats_response)->mutable_rc()->set_code(0);
      break;
    case ov::RECORD_STRING_STATS_REQUEST:
      body->MutableExtension(tl::record_string_stats_response)->mutable_rc()->set_code(0);
      break;
    default:
      return false;
  }
  zelvar::MakeResponse(request, static_cast<int>(type) + 1, reply);
  return true;
}

void FakeServices::Serve() {
  std::map<int, std::string> inputs;  // connection -> bytes not yet framed
  for (;;) {
    std::vector<pollfd> fds{{m_arrStopPipe[0], POLLIN, 0}, {m_iListenFd, POLLIN, 0}};
    for (const auto& input : inputs) fds.push_back({input.first, POLLIN, 0});
    if (poll(fds.data(), fds.size(), 1000) < 0) continue;
    if (fds[0].revents != 0) break;
    if (fds[1].revents != 0) {
      int fd = accept4(m_iListenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) inputs[fd];
    }
    for (size_t i = 2; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      int fd = fds[i].fd;
      char chunk[65536];
      ssize_t n = read(fd, chunk, sizeof chunk);
      if (n <= 0) {
        close(fd);
        inputs.erase(fd);
        continue;
      }
      std::string& input = inputs[fd];
      input.append(chunk, static_cast<size_t>(n));
      while (input.size() >= 4 && input.size() >= 4 + zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(input.data()))) {
        uint32_t length = zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(input.data()));
        zelvar::ZMessage request;
        request.ParseFromArray(input.data() + 4, static_cast<int>(length));
        input.erase(0, 4 + length);
        zelvar::ZMessage reply;
        if (!Answer(request, &reply)) continue;
        std::string bytes = zelvar::EncodeFrame(reply);
        (void)!write(fd, bytes.data(), bytes.size());
      }
    }
  }
  for (const auto& input : inputs) close(input.first);
}

}  // namespace integration
