// Sample rows as the control plane stores them, for the tests of the database
// and of the client that reads it.
#ifndef OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H
#define OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H

#include <optional>
#include <string>

#include "store/sample_store.h"

namespace controlplane {

// A numeric sample of stat item 1001.
inline SampleRow NumericRow(const std::string& agent, std::optional<uint32_t> object, const std::string& name,
                            int64_t tenths, int64_t receivedAt) {
  return SampleRow{0, receivedAt, agent, false, name, object, 1001, 0, tenths, "", 0};
}

// A text sample of job 3 of no known object, taken a second before it was received.
inline SampleRow TextRow(const std::string& agent, const std::string& name, const std::string& text,
                         int64_t receivedAt) {
  return SampleRow{0, receivedAt, agent, true, name, std::nullopt, 0, 3, 0, text, uint32_t(receivedAt - 1)};
}

}  // namespace controlplane

#endif  // OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H
