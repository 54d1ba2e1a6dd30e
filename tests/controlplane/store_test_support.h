// What the tests of the control plane's database and of its readers share: a
// scratch folder and sample rows as the control plane stores them.
#ifndef OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H
#define OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

#include "store/sample_store.h"

namespace controlplane {

// A folder under /tmp for one test's files, removed with them at the end.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/ovita2-controlplane-test.XXXXXX";
    m_strPath = mkdtemp(pattern);
  }
  ~ScratchDir() { std::filesystem::remove_all(m_strPath); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  std::string File(const std::string& name) const { return m_strPath + "/" + name; }

 private:
  std::string m_strPath;
};

// A numeric sample of stat item 1001.
inline SampleRow NumericRow(const std::string& agent, std::optional<uint32_t> objectId, const std::string& name,
                            int64_t tenths, int64_t receivedAt) {
  SampleRow row;
  row.agent = agent;
  row.object_id = objectId;
  row.name = name;
  row.stat_item = 1001;
  row.value = tenths;
  row.received_at = receivedAt;
  return row;
}

// A text sample of job 3, taken a second before it was received.
inline SampleRow TextRow(const std::string& agent, std::optional<uint32_t> objectId, const std::string& name,
                         const std::string& text, int64_t receivedAt) {
  SampleRow row;
  row.text = true;
  row.agent = agent;
  row.object_id = objectId;
  row.name = name;
  row.job_id = 3;
  row.text_value = text;
  row.sample_time = static_cast<uint32_t>(receivedAt - 1);
  row.received_at = receivedAt;
  return row;
}

}  // namespace controlplane

#endif  // OVITA2_TESTS_CONTROLPLANE_STORE_TEST_SUPPORT_H
