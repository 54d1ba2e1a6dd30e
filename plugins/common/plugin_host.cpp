#include "common/plugin_host.h"

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

int PluginHost::Deliver(unsigned machineId, ZKPluginResponse* answer) const {
  auto deliver = Slot<DeliverToMachineFn>(kSlotDeliverToMachine);
  if (deliver == nullptr) {
    ZKPluginResponse::DropRecord(answer);
    return -1;
  }
  return deliver(machineId, answer, &ZKPluginResponse::DropRecord);
}

}  // namespace zelvar::registry
