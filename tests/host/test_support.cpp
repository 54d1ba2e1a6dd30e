#include "test_support.h"

namespace host_test {

ProbeHost::ProbeHost(const std::string& extra) {
  std::string config = "[host]\nlog_file = host.log\nlog_level = 1\n\n[plugins]\nprobe = " PROBE_PLUGIN_PATH "\n\n" + extra;
  std::string path = m_sDir.Write("host.ini", config);
  m_bOk = m_sHost.Init(path, &m_strError);
  if (m_bOk) m_pProbe = static_cast<probe::Control*>(m_sHost.GetPluginHandle("probe"));
  m_bOk = m_bOk && m_pProbe != nullptr;
}

}  // namespace host_test
