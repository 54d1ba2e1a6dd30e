#include "fake_registry.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "test_host.h"

namespace ovita2 {
namespace testing {

zelvar::ZKPluginHandle FakeRegistry::s_sHandle = {&FakeRegistry::Call};

const RegistryCall& FakeRegistry::LastCall() const {
  if (m_vecCalls.empty()) {
    std::fprintf(stderr, "FakeRegistry: no command was issued\n");
    std::abort();
  }
  return m_vecCalls.back();
}

int FakeRegistry::Call(unsigned machineId, const char* command, ...) {
  FakeRegistry& registry = TestHost::Current()->Registry();
  RegistryCall call;
  call.machine_id = machineId;
  call.command = command != nullptr ? command : "";
  va_list args;
  va_start(args, command);
  if (call.command == "listvalue" || call.command == "get") {
    const char* path = va_arg(args, const char*);
    call.path = path != nullptr ? path : "";
    call.watcher = va_arg(args, RegistryWatcher);
  } else if (call.command == "create") {
    const char* path = va_arg(args, const char*);
    call.path = path != nullptr ? path : "";
    const char* data = va_arg(args, const char*);
    int64_t length = va_arg(args, int64_t);
    if (data != nullptr && length > 0) call.data.assign(data, static_cast<size_t>(length));
    call.flags = va_arg(args, int);
  } else if (call.command == "set_callback") {
    call.callback = va_arg(args, RegistryCallback);
  }
  va_end(args);
  registry.m_vecCalls.push_back(call);
  auto specific = registry.m_mapResults.find(call.command);
  return specific != registry.m_mapResults.end() ? specific->second : 0;
}

void FakeRegistry::Answer(const RegistryCall& call, int retcode,
                          const std::vector<std::pair<std::string, std::string>>& children) {
  auto* response = new zelvar::ZKPluginResponse();
  response->retcode = retcode;
  response->type = call.command == "listvalue" ? zelvar::ZKPluginResponse::T_KEYVALUES
                                               : zelvar::ZKPluginResponse::T_STRING;
  for (const auto& child : children) {
    zelvar::ZKKeyValue keyvalue;
    keyvalue.key = child.first;
    keyvalue.value = child.second;
    response->keyvalues.push_back(keyvalue);
  }
  TestHost::Current()->DeliverRecord(call.machine_id, response, &zelvar::ZKPluginResponse::DropRecord);
}

}  // namespace testing
}  // namespace ovita2
