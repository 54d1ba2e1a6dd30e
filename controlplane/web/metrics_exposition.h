// The /metrics page: Prometheus' text exposition format (0.0.4) of the latest
// numeric sample of every series, and of the control plane's own counters.
#ifndef OVITA2_CONTROLPLANE_METRICS_EXPOSITION_H
#define OVITA2_CONTROLPLANE_METRICS_EXPOSITION_H

#include <cstdint>
#include <string>
#include <vector>

#include "services/control_plane_services.h"
#include "store/sample_store.h"

namespace controlplane {

constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

// `now` dates the heartbeat ages; agents that never sent one have no age.
std::string RenderMetrics(const std::vector<LatestValueRow>& latest, const std::vector<AgentRow>& agents,
                          const ServiceCounters& counters, int64_t now);

// Tenths as the decimal number they stand for: 123 -> "12.3", -5 -> "-0.5".
std::string FormatTenths(int64_t tenths);

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_METRICS_EXPOSITION_H
