#include "web/metrics_exposition.h"

namespace controlplane {
namespace {

// A label value as the exposition format quotes it.
void AppendLabelValue(std::string* out, const std::string& value) {
  out->push_back('"');
  for (char c : value) {
    if (c == '\\') {
      out->append("\\\\");
    } else if (c == '"') {
      out->append("\\\"");
    } else if (c == '\n') {
      out->append("\\n");
    } else {
      out->push_back(c);
    }
  }
  out->push_back('"');
}

void AppendFamily(std::string* out, const char* name, const char* type, const char* help) {
  out->append("# HELP ").append(name).append(" ").append(help).append("\n");
  out->append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void AppendSeriesValues(std::string* out, const std::vector<LatestValueRow>& latest) {
  AppendFamily(out, "ovita2_sample_value", "gauge", "Latest numeric sample of a job's series, in its own unit.");
  for (const LatestValueRow& row : latest) {
    out->append("ovita2_sample_value{agent=");
    AppendLabelValue(out, row.agent);
    out->append(",object=\"").append(std::to_string(row.object_id)).append("\",stat_key=");
    AppendLabelValue(out, row.name);
    out->append(",stat_item=\"").append(std::to_string(row.stat_item)).append("\"} ");
    out->append(FormatTenths(row.value)).append("\n");
  }
}

void AppendOwnMetrics(std::string* out, const std::vector<AgentRow>& agents, const ServiceCounters& counters,
                      int64_t now) {
  AppendFamily(out, "ovita2_controlplane_requests_total", "counter", "Requests received, by message type.");
  for (const auto& [type, count] : counters.requests_by_type) {
    out->append("ovita2_controlplane_requests_total{type=\"").append(std::to_string(type)).append("\"} ");
    out->append(std::to_string(count)).append("\n");
  }
  AppendFamily(out, "ovita2_controlplane_samples_stored_total", "counter", "Numeric and text samples stored.");
  out->append("ovita2_controlplane_samples_stored_total ").append(std::to_string(counters.samples_stored)).append("\n");
  AppendFamily(out, "ovita2_controlplane_store_errors_total", "counter",
               "Writes to the database that failed, their rows lost.");
  out->append("ovita2_controlplane_store_errors_total ").append(std::to_string(counters.store_errors)).append("\n");
  AppendFamily(out, "ovita2_controlplane_agents", "gauge", "Agents known to the database.");
  out->append("ovita2_controlplane_agents ").append(std::to_string(agents.size())).append("\n");
  AppendFamily(out, "ovita2_agent_heartbeat_age_seconds", "gauge", "Seconds since the agent's last heartbeat.");
  for (const AgentRow& agent : agents) {
    if (agent.last_heartbeat == 0) continue;
    out->append("ovita2_agent_heartbeat_age_seconds{agent=");
    AppendLabelValue(out, agent.name);
    out->append("} ").append(std::to_string(now - agent.last_heartbeat)).append("\n");
  }
}

}  // namespace

std::string FormatTenths(int64_t tenths) {
  // Unsigned, so the most negative value has a magnitude too.
  uint64_t magnitude = tenths < 0 ? 0 - static_cast<uint64_t>(tenths) : static_cast<uint64_t>(tenths);
  return (tenths < 0 ? "-" : "") + std::to_string(magnitude / 10) + "." + std::to_string(magnitude % 10);
}

std::string RenderMetrics(const std::vector<LatestValueRow>& latest, const std::vector<AgentRow>& agents,
                          const ServiceCounters& counters, int64_t now) {
  std::string out;
  out.reserve(160 * (latest.size() + agents.size()) + 2048);
  AppendSeriesValues(&out, latest);
  AppendOwnMetrics(&out, agents, counters, now);
  return out;
}

}  // namespace controlplane
