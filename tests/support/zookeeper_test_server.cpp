#include "zookeeper_test_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "zk_test_client.h"

namespace zelvar::registry::testing {
ZooKeeperTestServer::ZooKeeperTestServer() : m_iPort(ovita2::testing::FreeLoopbackPort()) {
  // A short tick keeps session expiry and the server's own checks fast.
  m_cDir.Write("zoo.cfg", "tickTime=500\ndataDir=" + m_cDir.Path() + "/data\nclientPort=" +
                              std::to_string(m_iPort) + "\nclientPortAddress=127.0.0.1\nadmin.enableServer=false\n");
}

bool ZooKeeperTestServer::Start(std::string* error) {
  if (Running()) return true;
  std::string out = m_cDir.Path() + "/server.out";
  std::string config = m_cDir.Path() + "/zoo.cfg";
  auto envOr = [](const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
  };
  const char* java = envOr("OVITA2_JAVA", "/usr/bin/java");
  const char* classPath = envOr("OVITA2_ZOOKEEPER_CLASSPATH", "/usr/share/java/zookeeper.jar");
  m_iPid = fork();
  if (m_iPid == 0) {
    // Its own group, so Stop reaches whatever the JVM starts; and no orphan
    // server should the test process die without running Stop.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(outFd, 1);
    dup2(outFd, 2);
    execl(java, java, "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-cp", classPath,
          "org.apache.zookeeper.server.ZooKeeperServerMain", config.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (m_iPid > 0) setpgid(m_iPid, m_iPid);  // as the child does: whichever runs first
  // Each attempt waits up to ZkTestClient::kWaitMs while the client retries.
  for (int attempt = 0; m_iPid > 0 && attempt < 3; ++attempt) {
    if (ZkTestClient().Connect(Address())) return true;
    if (waitpid(m_iPid, nullptr, WNOHANG) == m_iPid) m_iPid = -1;
  }
  Stop();
  std::string output = ovita2::testing::ReadFile(out);
  *error = "no session on the ZooKeeper server at " + Address() + ":\n" +
           output.substr(output.size() > 4000 ? output.size() - 4000 : 0);
  return false;
}

void ZooKeeperTestServer::Stop() {
  if (m_iPid <= 0) return;
  kill(-m_iPid, SIGTERM);
  // The JVM gets five seconds to shut down; then it is killed.
  for (int waitedMs = 0; waitpid(m_iPid, nullptr, WNOHANG) == 0; waitedMs += 50) {
    if (waitedMs == 5000) kill(-m_iPid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  m_iPid = -1;
}

}  // namespace zelvar::registry::testing
