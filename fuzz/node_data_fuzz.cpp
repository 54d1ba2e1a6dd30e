// The agent's reading of registry node data: a "listvalue" answer whose
// children hold whatever bytes someone wrote into the registry.
#include <cstddef>
#include <cstdint>
#include <string>

#include "naming/name_container.h"
#include "naming/update_names.h"
#include "test_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ovita2::testing::ResetAgentState();
  ovita2::testing::TestHost host;
  NameContainer::Instance()->DefineName("MASTER", "/names/MASTER");
  host.Start(new UpdateNamesMachine());
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  host.Registry().Answer(host.Registry().LastCall(), 0, {{"cp-1", bytes}, {"cp-2", bytes.substr(size / 2)}});
  host.RunPending();
  return 0;
}
