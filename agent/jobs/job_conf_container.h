// JobConfContainer: the configurations of the agent's built-in collectors.
//
// Two tables:
//   configuration table  target -> ConfObject, every configuration ever
//                        received; never pruned. Keyed by target alone, so
//                        one target under two collector types shares one
//                        configuration (the later copy wins);
//   type table           collector type -> (target -> last-run time, host
//                        seconds, 0 = never run); what the configured-collector
//                        machine walks.
//
// The update machine fills the container one collector type at a time, in a
// pass over types 1, 2, 3 ... A refresh of a type already in the type table
// rebuilds the type table with that type alone (its targets keep their
// last-run times); every other type comes back, with last-run 0, at its own
// next refresh. A full pass therefore rebuilds the table from scratch, and
// targets a type no longer lists disappear. A type seen for the first time is
// only added: its targets go in at 0, and nothing else is touched.
//
// One process-wide instance (Instance()), created on first use and destroyed
// at exit. Event-loop thread only; a configuration pointer is valid until the
// next update that lists the same target.
#ifndef OVITA2_AGENT_JOBS_JOB_CONF_CONTAINER_H
#define OVITA2_AGENT_JOBS_JOB_CONF_CONTAINER_H

#include <cstdint>
#include <map>
#include <string>

#include "zelvar/ovita2.pb.h"

class JobConfContainer {
 public:
  using TargetTimes = std::map<std::string, uint32_t>;
  using TypeTargets = std::map<uint32_t, TargetTimes>;

  static JobConfContainer* Instance();

  JobConfContainer() = default;
  virtual ~JobConfContainer() = default;

  JobConfContainer(const JobConfContainer&) = delete;
  JobConfContainer& operator=(const JobConfContainer&) = delete;

  // Installs what the task queue returned for collector `type`.
  void UpdateJobConfs(unsigned int type, const zelvar::ovita2::GetConfResponse& response);

  // The configuration stored for `target`, or null.
  const zelvar::ovita2::ConfObject* GetJobConfDefine(std::string target) const;

  // The type table; the collector machine writes last-run times back into it.
  TypeTargets& GetJobConfs() { return m_mapTypeTargets; }

 private:
  std::map<std::string, zelvar::ovita2::ConfObject> m_mapConfs;
  TypeTargets m_mapTypeTargets;
};

#endif  // OVITA2_AGENT_JOBS_JOB_CONF_CONTAINER_H
