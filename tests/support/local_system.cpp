#include "local_system.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace ovita2::testing {

TempDir::TempDir() {
  char pattern[] = "/tmp/ovita2-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  m_strPath = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir() {
  if (m_strPath != "/tmp") (void)std::system(("rm -rf '" + m_strPath + "'").c_str());
}

std::string TempDir::Write(const std::string& name, const std::string& text) const {
  std::string path = m_strPath + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

bool Eventually(const std::function<bool()>& done, double seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(10)))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

ChildProcess::ChildProcess(const std::string& command) : m_iPid(fork()) {
  if (m_iPid != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  _exit(127);
}

ChildProcess::~ChildProcess() {
  if (m_iPid > 0 && kill(m_iPid, SIGKILL) == 0) waitpid(m_iPid, nullptr, 0);
}

int ChildProcess::Wait() {
  int status = -1;
  if (m_iPid <= 0 || !Eventually([&] { return waitpid(m_iPid, &status, WNOHANG) == m_iPid; })) return -1;
  m_iPid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {
sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}
}  // namespace

int ConnectLoopback(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int ListenLoopback(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 16) != 0) {
    close(fd);
    return -1;
  }
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

int FreeLoopbackPort() {
  int port = 0;
  int fd = ListenLoopback(&port);
  if (fd >= 0) close(fd);
  return port;
}

bool SendAll(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool ReadAvailable(int fd, std::string* sink) {
  char buffer[65536];
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n <= 0) return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    sink->append(buffer, static_cast<size_t>(n));
  }
}

int CountOpenDescriptors() {
  std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<int>(std::distance(begin(entries), end(entries))) - 1;  // the listing's own descriptor
}

int CountZombieChildren() {
  int zombies = 0;
  pid_t self = getpid();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name[0] < '0' || name[0] > '9') continue;
    std::string stat = ReadFile(entry.path() / "stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int parent = 0;
    bool parsed = std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) == 2;
    if (parsed && parent == self && state == 'Z') ++zombies;
  }
  return zombies;
}

}  // namespace ovita2::testing
