// Marks the C entry points a registry plug-in exports; everything else in a
// plug-in is built with hidden visibility, so the host sees only these.
#ifndef OVITA2_PLUGINS_COMMON_PLUGIN_EXPORT_H
#define OVITA2_PLUGINS_COMMON_PLUGIN_EXPORT_H

#define OVITA2_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

#endif  // OVITA2_PLUGINS_COMMON_PLUGIN_EXPORT_H
