// The control plane's jobs file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "catalogue/job_catalogue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  controlplane::JobCatalogue catalogue;
  std::string error;
  controlplane::JobCatalogue::Parse(std::string(reinterpret_cast<const char*>(data), size), "jobs.yaml", &catalogue,
                                    &error);
  return 0;
}
