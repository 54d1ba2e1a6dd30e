// The control plane's request reader: bytes an agent sends on a connection,
// cut into frames (OnDataIn) and each request served, through the plug-in as
// zelvar-host loads it, started afresh for every input on a database in memory.
#include <dlfcn.h>
#include <google/protobuf/stubs/logging.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "test_host.h"

namespace {

void* g_plugin = nullptr;

template <typename Fn>
Fn Entry(const char* name) {
  return reinterpret_cast<Fn>(dlsym(g_plugin, name));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  google::protobuf::SetLogHandler(nullptr);  // a line for each mangled string slows the runs down
  g_plugin = dlopen(CONTROLPLANE_PLUGIN_PATH, RTLD_NOW);
  if (g_plugin == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ovita2::testing::PluginEntries entries;
  entries.peek = Entry<void (*)(zelvar::HostFunction*)>("OnPeekInterface");
  entries.data_in = Entry<decltype(entries.data_in)>("OnDataIn");
  ovita2::testing::TestHost host(entries);
  host.SetConfig("network", "listen-ip", "127.0.0.1");
  host.SetConfig("network", "listen-port", "7100");
  host.SetConfig("controlplane", "name", "cp-1");
  host.SetConfig("controlplane", "jobs_file", DEMO_JOBS_FILE);
  host.SetConfig("controlplane", "database", ":memory:");
  if (Entry<int (*)(void*)>("OnInit")(nullptr) != 0) {
    for (const std::string& line : host.LogLines()) std::fprintf(stderr, "%s\n", line.c_str());
    std::abort();
  }
  ovita2::testing::TestPeer& peer = host.Accept("10.0.0.1", 4000);
  Entry<int (*)(uint64_t, uint64_t)>("OnConnect")(peer.ConnA(), peer.ConnB());
  peer.WriteRaw(std::string(reinterpret_cast<const char*>(data), size));
  host.Route(peer);
  host.RunPending();
  Entry<void (*)()>("OnUnload")();
  return 0;
}
