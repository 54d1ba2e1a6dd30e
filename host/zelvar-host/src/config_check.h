// The configuration check of `zelvar-host --check-config FILE`: reads the
// file and the host's own settings, loads every plug-in without starting it,
// and compares the file against the keys each component declares (the host's
// in host_settings.cpp, a plug-in's through OnDescribeConfig).
//
// A key or section nothing reads is most often a typo that would otherwise be
// silently ignored, so each is reported with the nearest known name. A
// section of a plug-in that declares nothing cannot be judged and is only
// noted as not checked.
#ifndef ZELVAR_HOST_CONFIG_CHECK_H
#define ZELVAR_HOST_CONFIG_CHECK_H

#include <cstdio>
#include <string>
#include <vector>

#include "zelvar/host_interface.h"

namespace zelvar_host {

class Config;

// The keys one component reads; `keys` null when it declares none.
struct ComponentKeys {
  std::string component;  // "the host", "plug-in \"agent\""
  const zelvar::ConfigKeyDeclaration* keys;
};

struct CheckFindings {
  std::vector<std::string> errors;
  std::vector<std::string> notes;
};

// Compares `config` with what `components` declare.
CheckFindings CheckConfigKeys(const Config& config, const std::vector<ComponentKeys>& components);

// Runs the whole check of the file at `path`, writing one line per finding to
// `out`. Returns the exit status: 0 when nothing is wrong, 1 otherwise.
int CheckConfigFile(const std::string& path, FILE* out);

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_CONFIG_CHECK_H
