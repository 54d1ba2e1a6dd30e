// Entry points of the embedded registry plug-in (libregistry_embedded.so).
#include "common/registry_entry.h"
#include "embedded/embedded_registry.h"

namespace {

using zelvar::registry::EmbeddedRegistry;

zelvar::ZKPluginHandle g_handle = {&zelvar::registry::RegistryPlugin<EmbeddedRegistry>::Call};

}  // namespace

OVITA2_REGISTRY_ENTRY_POINTS(EmbeddedRegistry, g_handle)
