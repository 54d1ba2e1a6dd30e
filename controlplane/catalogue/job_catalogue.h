// JobCatalogue: what the task queue hands out, read from one YAML file: per
// agent, the monitored objects with their shell jobs, and the configurations
// of the built-in collectors by collector type.
//
//   agents:
//     web-01:                       # the agent's [common] agentname
//       objects:
//         - object_id: 1
//           jobs:
//             - job_id: 1           # every field of a job description
//               stat_item: 1001
//               interval: 10
//               command: cut -d' ' -f1 /proc/loadavg
//               stat_key: load1
//       confs:
//         1:                        # collector type
//           - target: sshd
//             parameter: 0
//     "*":                          # any agent not listed by name
//       objects: []
//
// A file is read whole or not at all: any mistake (bad YAML, an unknown key, a
// value of the wrong type or out of range, a missing required field, a job or
// object defined twice) fails the load with one message that names the place,
// "FILE:LINE:COLUMN: what is wrong", so a reload can keep the previous catalogue.
#ifndef OVITA2_CONTROLPLANE_JOB_CATALOGUE_H
#define OVITA2_CONTROLPLANE_JOB_CATALOGUE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "zelvar/ovita2.pb.h"

namespace controlplane {

// What one agent is given.
struct AgentCatalogue {
  // One entry per job, objects and jobs in file order (the reply to 68000).
  std::vector<zelvar::ovita2::ObjectJob> object_jobs;
  // Collector configurations by collector type, in file order within a type.
  std::map<uint32_t, std::vector<zelvar::ovita2::ConfObject>> confs;

  // The object whose job `jobId` has the statistics key `statKey`, when
  // exactly one has (text samples carry no object). A built-in collector's
  // sample carries its collector type where a job id would be, and the agent's
  // name as its key, so it belongs to no object.
  std::optional<uint32_t> ObjectOfJob(uint32_t jobId, const std::string& statKey) const;
};

class JobCatalogue {
 public:
  // The key of the entry that serves agents not listed by name.
  static constexpr const char* kAnyAgent = "*";

  // Reads YAML text; `sourceName` is the file name used in error messages.
  // On failure returns false, sets `*error` and leaves `*out` untouched.
  static bool Parse(const std::string& text, const std::string& sourceName, JobCatalogue* out,
                    std::string* error);
  // Reads the file at `path` (its path is the source name).
  static bool Load(const std::string& path, JobCatalogue* out, std::string* error);

  // The entry of `agentName`, else the "*" entry, else null (an unknown agent).
  const AgentCatalogue* Find(const std::string& agentName) const;

  size_t AgentCount() const { return m_mapAgents.size(); }
  // Jobs over all agents, for the load's log line.
  size_t JobCount() const;

 private:
  std::map<std::string, AgentCatalogue> m_mapAgents;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_JOB_CATALOGUE_H
