#include "web/web_routes.h"

#include <cstdlib>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "web/metrics_exposition.h"
#include "zelvar/string_util.h"

namespace controlplane {
namespace {

using nlohmann::json;

// Agents' names and text samples are whatever the agents sent; bytes that are
// not UTF-8 are shown as U+FFFD rather than failing the whole answer.
WebReply JsonReply(int status, const json& body) {
  return {status, "application/json", body.dump(-1, ' ', false, json::error_handler_t::replace)};
}

WebReply JsonError(int status, const std::string& message) { return JsonReply(status, {{"error", message}}); }

WebReply StoreFailure(const std::string& error) { return JsonError(500, error); }

WebReply FileReply(const std::string& path, const char* contentType) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {404, "text/plain; charset=utf-8", "not found: " + path + " is not installed\n"};
  std::ostringstream content;
  content << file.rdbuf();
  return {200, contentType, content.str()};
}

std::string Param(const QueryParams& params, const char* name) {
  auto found = params.find(name);
  return found != params.end() ? found->second : std::string();
}

// A whole decimal number in [low, high]; absent gives `dflt`. False when it is
// there but not such a number.
bool NumberParam(const QueryParams& params, const char* name, int64_t low, int64_t high, int64_t dflt,
                 int64_t* value) {
  std::string text = Param(params, name);
  if (text.empty()) {
    *value = dflt;
    return true;
  }
  return zelvar::ParseInteger(text, value, low, high) == zelvar::IntegerParse::kOk;
}

WebReply BadParam(const char* name, const std::string& what) {
  return JsonError(400, std::string("parameter ") + name + " must be " + what);
}

constexpr int64_t kUint32Max = std::numeric_limits<uint32_t>::max();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kLimitMax = 1000;
// A chart without a chosen range shows the last hour.
constexpr int64_t kDefaultRangeSeconds = 3600;

// The filter of /api/texts and /api/lines, or a 400 reply.
bool ReadListQuery(const QueryParams& params, SampleQuery* query, WebReply* bad) {
  query->agent = Param(params, "agent");
  int64_t after = 0, limit = 0;
  if (!NumberParam(params, "after", 0, kInt64Max, 0, &after)) {
    *bad = BadParam("after", "an id (0 or more)");
    return false;
  }
  if (!NumberParam(params, "limit", 1, kLimitMax, 50, &limit)) {
    *bad = BadParam("limit", "from 1 to " + std::to_string(kLimitMax));
    return false;
  }
  query->after_id = after;
  query->limit = static_cast<size_t>(limit);
  return true;
}

}  // namespace

WebReply WebRoutes::Answer(const std::string& path, const QueryParams& params, int64_t now) const {
  if (path == "/" || path == "/index.html") {
    return FileReply(m_sFiles.web_root + "/index.html", "text/html; charset=utf-8");
  }
  if (path == "/app.js") return FileReply(m_sFiles.web_root + "/app.js", "text/javascript; charset=utf-8");
  if (path == "/style.css") return FileReply(m_sFiles.web_root + "/style.css", "text/css; charset=utf-8");
  if (path == "/chart.js") return FileReply(m_sFiles.chart_js, "text/javascript; charset=utf-8");
  if (path == "/metrics") return Metrics(now);
  if (path == "/api/agents") return Agents(now);
  if (path == "/api/series") return Series(params);
  if (path == "/api/points") return Points(params, now);
  if (path == "/api/texts") return Texts(params);
  if (path == "/api/lines") return Lines(params);
  return {404, "text/plain; charset=utf-8", "not found\n"};
}

WebReply WebRoutes::Metrics(int64_t now) const {
  std::string error;
  std::vector<LatestValueRow> latest = m_pStore->LatestValues("", &error);
  if (!error.empty()) return {500, "text/plain; charset=utf-8", error + "\n"};
  std::vector<AgentRow> agents = m_pStore->Agents(&error);
  if (!error.empty()) return {500, "text/plain; charset=utf-8", error + "\n"};
  return {200, kMetricsContentType, RenderMetrics(latest, agents, m_pServices->Counters(), now)};
}

WebReply WebRoutes::Agents(int64_t now) const {
  std::string error;
  std::vector<AgentRow> agents = m_pStore->Agents(&error);
  if (!error.empty()) return StoreFailure(error);
  json list = json::array();
  for (const AgentRow& agent : agents) {
    list.push_back({{"name", agent.name},
                    {"address", agent.address},
                    {"node_path", agent.node_path},
                    {"version", agent.version},
                    {"job_count", agent.job_count},
                    {"last_seen", agent.last_seen},
                    {"last_heartbeat", agent.last_heartbeat},
                    {"heartbeat_age", agent.last_heartbeat != 0 ? json(now - agent.last_heartbeat) : json()}});
  }
  return JsonReply(200, {{"now", now}, {"agents", list}});
}

WebReply WebRoutes::Series(const QueryParams& params) const {
  std::string agent = Param(params, "agent");
  if (agent.empty()) return BadParam("agent", "an agent's name");
  std::string error;
  std::vector<LatestValueRow> latest = m_pStore->LatestValues(agent, &error);
  if (!error.empty()) return StoreFailure(error);
  json list = json::array();
  for (const LatestValueRow& row : latest) {
    list.push_back({{"object_id", row.object_id},
                    {"stat_key", row.name},
                    {"stat_item", row.stat_item},
                    {"value", row.value / 10.0},
                    {"received_at", row.received_at}});
  }
  return JsonReply(200, {{"agent", agent}, {"series", list}});
}

WebReply WebRoutes::Points(const QueryParams& params, int64_t now) const {
  SeriesQuery query;
  query.agent = Param(params, "agent");
  query.name = Param(params, "stat_key");
  if (query.agent.empty()) return BadParam("agent", "an agent's name");
  if (query.name.empty()) return BadParam("stat_key", "a series' stat_key");
  int64_t object = 0, item = 0;
  if (!NumberParam(params, "object", 0, kUint32Max, -1, &object) || object < 0) {
    return BadParam("object", "an object id");
  }
  if (!NumberParam(params, "stat_item", 0, kUint32Max, 0, &item)) return BadParam("stat_item", "a stat_item");
  if (!NumberParam(params, "to", 0, kInt64Max, now, &query.to)) return BadParam("to", "seconds since the epoch");
  if (!NumberParam(params, "from", 0, query.to, query.to - kDefaultRangeSeconds, &query.from)) {
    return BadParam("from", "seconds since the epoch, not after to");
  }
  query.object_id = static_cast<uint32_t>(object);
  query.stat_item = static_cast<uint32_t>(item);
  std::string error;
  std::vector<SeriesPoint> points = m_pStore->SeriesPoints(query, &error);
  if (!error.empty()) return StoreFailure(error);
  json list = json::array();
  for (const SeriesPoint& point : points) list.push_back({point.received_at, point.value / 10.0});
  return JsonReply(200, {{"from", query.from}, {"to", query.to}, {"points", list}});
}

WebReply WebRoutes::Texts(const QueryParams& params) const {
  SampleQuery query;
  WebReply bad;
  if (!ReadListQuery(params, &query, &bad)) return bad;
  query.text_only = true;
  std::string error;
  std::vector<SampleRow> rows =
      query.after_id > 0 ? m_pStore->SamplesAfter(query, &error) : m_pStore->RecentSamples(query, &error);
  if (!error.empty()) return StoreFailure(error);
  json list = json::array();
  for (const SampleRow& row : rows) {
    list.push_back({{"id", row.id},
                    {"received_at", row.received_at},
                    {"agent", row.agent},
                    {"object_id", row.object_id ? json(*row.object_id) : json()},
                    {"stat_key", row.name},
                    {"job_id", row.job_id},
                    {"text", row.text_value},
                    {"sample_time", row.sample_time}});
  }
  return JsonReply(200, {{"samples", list}});
}

WebReply WebRoutes::Lines(const QueryParams& params) const {
  SampleQuery query;
  WebReply bad;
  if (!ReadListQuery(params, &query, &bad)) return bad;
  std::string error;
  std::vector<RealTimeLineRow> rows = query.after_id > 0 ? m_pStore->RealTimeLinesAfter(query, &error)
                                                         : m_pStore->RecentRealTimeLines(query, &error);
  if (!error.empty()) return StoreFailure(error);
  json list = json::array();
  for (const RealTimeLineRow& row : rows) {
    list.push_back({{"id", row.id}, {"received_at", row.received_at}, {"agent", row.agent}, {"line", row.line}});
  }
  return JsonReply(200, {{"lines", list}});
}

}  // namespace controlplane
