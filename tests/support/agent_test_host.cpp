// The agent's own test host, in a unit of its own: only programs that link the
// agent pull it in, so the other plug-ins' tests use TestHost without it.
#include "entry/so_entry.h"
#include "test_host.h"

namespace ovita2 {
namespace testing {

namespace {
PluginEntries AgentEntries() {
  PluginEntries entries;
  entries.peek = &OnPeekInterface;
  entries.routine = &OnRoutine;
  entries.data_in = &OnDataIn;
  return entries;
}
}  // namespace

TestHost::TestHost(unsigned defaultMachineTimeoutSec) : TestHost(AgentEntries(), defaultMachineTimeoutSec) {}

}  // namespace testing
}  // namespace ovita2
