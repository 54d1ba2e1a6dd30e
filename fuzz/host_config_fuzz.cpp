// The host's configuration reader, from text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelvar_host::Config config;
  std::string error;
  if (config.LoadString(std::string(reinterpret_cast<const char*>(data), size), "fuzz.ini", &error)) {
    for (const std::string& section : config.SectionNames()) config.Section(section);
    config.GetInt("network", "listen-port", 0);
  }
  return 0;
}
