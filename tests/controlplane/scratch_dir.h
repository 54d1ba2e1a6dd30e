// A folder under /tmp for one test's files, removed with them at the end.
#ifndef OVITA2_TESTS_CONTROLPLANE_SCRATCH_DIR_H
#define OVITA2_TESTS_CONTROLPLANE_SCRATCH_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace controlplane {

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

}  // namespace controlplane

#endif  // OVITA2_TESTS_CONTROLPLANE_SCRATCH_DIR_H
