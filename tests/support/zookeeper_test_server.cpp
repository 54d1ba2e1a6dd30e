#include "zookeeper_test_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "zk_test_client.h"

namespace zelvar::registry::testing {
namespace {

int FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

bool PortAccepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  bool accepted = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return accepted;
}

const char* EnvOr(const char* name, const char* fallback) {
  const char* value = getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

ZooKeeperTestServer::ZooKeeperTestServer() {
  char pattern[] = "/tmp/ovita2-zk-XXXXXX";
  if (mkdtemp(pattern) != nullptr) m_strDir = pattern;
  m_iPort = FreeLoopbackPort();
  std::ofstream config(m_strDir + "/zoo.cfg");
  // A short tick keeps session expiry and the server's own checks fast.
  config << "tickTime=" << kTickMs << "\n"
         << "dataDir=" << m_strDir << "/data\n"
         << "clientPort=" << m_iPort << "\n"
         << "clientPortAddress=127.0.0.1\n"
         << "admin.enableServer=false\n"
         << "4lw.commands.whitelist=\n";
}

ZooKeeperTestServer::~ZooKeeperTestServer() {
  Stop();
  if (!m_strDir.empty()) nftw(m_strDir.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string ZooKeeperTestServer::Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }

bool ZooKeeperTestServer::Launch(std::string* error) {
  std::string java = EnvOr("OVITA2_JAVA", "/usr/bin/java");
  std::string classPath = EnvOr("OVITA2_ZOOKEEPER_CLASSPATH", "/usr/share/java/zookeeper.jar");
  std::string config = m_strDir + "/zoo.cfg";
  std::string output = m_strDir + "/server.out";
  std::vector<std::string> args = {java, "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                                   "-Dzookeeper.admin.enableServer=false", "-cp", classPath,
                                   "org.apache.zookeeper.server.ZooKeeperServerMain", config};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  int outFd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  pid_t pid = fork();
  if (pid < 0) {
    *error = "fork failed";
    if (outFd >= 0) close(outFd);
    return false;
  }
  if (pid == 0) {
    setpgid(0, 0);
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, 0);
    if (outFd >= 0) {
      dup2(outFd, 1);
      dup2(outFd, 2);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (outFd >= 0) close(outFd);
  m_iPid = pid;
  return true;
}

bool ZooKeeperTestServer::Start(std::string* error) {
  std::string ignored;
  if (error == nullptr) error = &ignored;
  if (m_strDir.empty() || m_iPort == 0) {
    *error = "no temporary directory or free port for the server";
    return false;
  }
  if (Running()) return true;
  if (!Launch(error)) return false;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartLimitMs);
  while (!PortAccepts(m_iPort)) {
    int status = 0;
    if (waitpid(m_iPid, &status, WNOHANG) == m_iPid) {
      m_iPid = -1;
      *error = "the ZooKeeper server exited while starting:\n" + OutputTail();
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      *error = "the ZooKeeper server did not listen on " + Address() + " in time:\n" + OutputTail();
      Stop();
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ZkTestClient probe;
  if (!probe.Connect(Address())) {
    *error = "no client session could be opened on " + Address() + ":\n" + OutputTail();
    Stop();
    return false;
  }
  return true;
}

void ZooKeeperTestServer::Stop() {
  if (m_iPid <= 0) return;
  kill(-m_iPid, SIGTERM);
  kill(m_iPid, SIGTERM);
  for (int i = 0; i < 100; ++i) {
    if (waitpid(m_iPid, nullptr, WNOHANG) == m_iPid) {
      m_iPid = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(-m_iPid, SIGKILL);
  kill(m_iPid, SIGKILL);
  waitpid(m_iPid, nullptr, 0);
  m_iPid = -1;
}

std::string ZooKeeperTestServer::OutputTail() const {
  std::ifstream file(m_strDir + "/server.out");
  std::stringstream text;
  text << file.rdbuf();
  std::string all = text.str();
  return all.size() > 4000 ? all.substr(all.size() - 4000) : all;
}

}  // namespace zelvar::registry::testing
