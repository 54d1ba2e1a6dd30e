// The command-line client's reader: whatever an "agent" answers to a
// real-time switch request, from a loopback server that sends the input.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

#include "client/agent_link.h"
#include "local_system.h"

namespace {

// Answers `answer` whatever was asked, then waits for the client to close
// first, so that it never meets a reset.
void Answer(int listener, const std::string& answer) {
  int fd = accept(listener, nullptr, nullptr);
  if (fd < 0) return;
  ovita2::testing::SendAll(fd, answer);
  shutdown(fd, SHUT_WR);
  char buffer[512];
  while (read(fd, buffer, sizeof buffer) > 0) {
  }
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int port = 0;
  static int listener = (std::signal(SIGPIPE, SIG_IGN), ovita2::testing::ListenLoopback(&port));
  std::thread server(Answer, listener, std::string(reinterpret_cast<const char*>(data), size));
  controlplane::SwitchRealTimeMonitor("127.0.0.1:" + std::to_string(port), 7, true, std::chrono::milliseconds(2000));
  server.join();
  return 0;
}
