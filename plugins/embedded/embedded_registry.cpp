#include "embedded/embedded_registry.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

#include "common/zk_answer.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/string_util.h"

namespace zelvar::registry {

EmbeddedRegistry::EmbeddedRegistry(const PluginHost* host) : m_pHost(host), m_tree(PseudoSessionId()) {}

int64_t EmbeddedRegistry::NowMs() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

int64_t EmbeddedRegistry::PseudoSessionId() {
  // Shaped like a server's session id (a high tag, a counter below) and never
  // 0, so users that test ephemeralOwner see an ephemeral node as one.
  return (static_cast<int64_t>(0x0e) << 56) | (static_cast<int64_t>(getpid()) << 24) |
         (NowMs() & 0xFFFFFF) | 1;
}

bool EmbeddedRegistry::EncodeAddress(const std::string& address, std::string* encoded) {
  size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) return false;
  std::string ip = address.substr(0, colon);
  if (ip.size() >= 2 && ip.front() == '[' && ip.back() == ']') ip = ip.substr(1, ip.size() - 2);
  std::string portText = address.substr(colon + 1);
  uint16_t port = 0;
  if (ip.empty() || zelvar::ParseInteger(portText, &port, 1, 65535) != zelvar::IntegerParse::kOk) return false;
  kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(static_cast<int32_t>(port));
  return content.SerializeToString(encoded);
}

const zelvar::ConfigKeyDeclaration EmbeddedRegistry::kConfigKeys[] = {{kSection, nullptr, false},
                                                                      {nullptr, nullptr, false}};

int EmbeddedRegistry::Start() {
  m_pHost->Log(3, "embedded registry: ready with %d configured node(s)", LoadConfiguration());
  return 0;
}

int EmbeddedRegistry::LoadConfiguration() {
  int loaded = 0;
  for (const std::string& path : m_pHost->ListConfigKeys(kSection, ".*")) {
    std::string address = m_pHost->GetConfigString(kSection, path.c_str(), "");
    std::string encoded;
    if (!ZKCommand::IsValidPath(path.c_str(), false)) {
      m_pHost->Log(4, "embedded registry: [%s] key \"%s\" is not a node path (it must start with '/'), entry ignored",
                   kSection, path.c_str());
      continue;
    }
    if (!EncodeAddress(address, &encoded)) {
      m_pHost->Log(4, "embedded registry: [%s] %s = \"%s\" is not ip:port (for example 127.0.0.1:7100), entry ignored",
                   kSection, path.c_str(), address.c_str());
      continue;
    }
    int rc = m_tree.Create(path, encoded, ZOO_PERSISTENT, NowMs(), nullptr);
    if (rc != ZOK) {
      m_pHost->Log(4, "embedded registry: [%s] %s cannot be created: %s", kSection, path.c_str(), zerror(rc));
      continue;
    }
    m_pHost->Log(2, "embedded registry: node %s = %s", path.c_str(), address.c_str());
    ++loaded;
  }
  return loaded;
}

int EmbeddedRegistry::Call(unsigned machineId, const ZKCommand& command) {
  ZKPluginResponse* answer = nullptr;
  switch (command.kind) {
    case ZKCommandKind::kSetCallback:
      m_fnCallback = command.callback;
      return ZOK;
    case ZKCommandKind::kCreate: {
      std::string data(command.data != nullptr ? command.data : "", static_cast<size_t>(command.length));
      std::string created;
      int rc = m_tree.Create(command.path, data, command.flags, NowMs(), &created);
      if (rc == ZBADARGUMENTS) return rc;  // the server would refuse these before sending anything
      answer = rc == ZOK ? CreatedAnswer(created) : ErrorAnswer(rc);
      break;
    }
    case ZKCommandKind::kGet: {
      std::string data;
      Stat stat{};
      int rc = m_tree.Get(command.path, &data, &stat);
      // Nodes never change here, so an armed watch could never fire: none is kept.
      answer = rc == ZOK ? DataAnswer(data, stat) : ErrorAnswer(rc);
      break;
    }
    case ZKCommandKind::kListValue: {
      Stat stat{};
      std::vector<ZKKeyValue> children;
      int rc = m_tree.List(command.path, &stat, &children);
      if (rc == ZOK) {
        answer = ChildrenAnswer(stat);
        answer->keyvalues = std::move(children);
      } else {
        answer = ErrorAnswer(rc);
      }
      break;
    }
  }
  if (answer->retcode != ZOK) {
    m_pHost->Log(3, "embedded registry: %s for machine %u: %s", command.path, machineId,
                 answer->error_message.c_str());
  }
  m_pHost->Deliver(machineId, answer);
  return ZOK;
}

}  // namespace zelvar::registry
