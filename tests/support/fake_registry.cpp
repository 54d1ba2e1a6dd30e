#include "fake_registry.h"

#include <cstdarg>

#include "test_host.h"

namespace ovita2::testing {

zelvar::ZKPluginHandle FakeRegistry::s_sHandle = {&FakeRegistry::Call};

int FakeRegistry::Call(unsigned machineId, const char* command, ...) {
  FakeRegistry& registry = TestHost::Current()->Registry();
  RegistryCall call;
  call.machine_id = machineId;
  call.command = command != nullptr ? command : "";
  va_list args;
  va_start(args, command);
  if (call.command == "listvalue" || call.command == "get") {
    call.path = va_arg(args, const char*);
    call.watcher = va_arg(args, watcher_fn);
  } else if (call.command == "create") {
    call.path = va_arg(args, const char*);
    const char* data = va_arg(args, const char*);
    int64_t length = va_arg(args, int64_t);
    if (data != nullptr && length > 0) call.data.assign(data, static_cast<size_t>(length));
    call.flags = va_arg(args, int);
  } else if (call.command == "set_callback") {
    call.callback = va_arg(args, decltype(call.callback));
  }
  va_end(args);
  registry.m_vecCalls.push_back(call);
  return registry.m_mapResults.count(call.command) ? registry.m_mapResults.at(call.command) : 0;
}

void FakeRegistry::Answer(const RegistryCall& call, int retcode,
                          const std::vector<std::pair<std::string, std::string>>& children) {
  auto* response = new zelvar::ZKPluginResponse();
  response->retcode = retcode;
  response->type = call.command == "listvalue" ? zelvar::ZKPluginResponse::T_KEYVALUES
                                               : zelvar::ZKPluginResponse::T_STRING;
  for (const auto& child : children) response->keyvalues.push_back({child.first, child.second});
  TestHost::Current()->DeliverRecord(call.machine_id, response, &zelvar::ZKPluginResponse::DropRecord);
}

}  // namespace ovita2::testing
