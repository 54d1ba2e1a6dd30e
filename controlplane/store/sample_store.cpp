// SampleStore: the control plane's SQLite database (see sample_store.h).
#include "store/sample_store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "store/schema.h"
#include "store/sqlite_statement.h"

namespace controlplane {
namespace {

using store::CheckReadable;
using store::Failure;
using store::NotOpen;
using store::PrepareForWriting;
using store::RunQuery;
using store::RunWrite;
using store::SetError;
using store::Statement;

// The plug-in writes while the client reads; a connection that finds the
// database locked waits this long before it gives up.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kSelectLatest =
    "SELECT agent, object_id, name, stat_item, received_at, value FROM latest_samples";

constexpr const char* kSelectSeries =
    "SELECT received_at, value FROM samples WHERE is_text = 0 AND agent = :agent AND object_id = :object_id"
    " AND name = :name AND stat_item = :stat_item AND received_at BETWEEN :from AND :to"
    " ORDER BY received_at DESC, id DESC LIMIT :limit";

constexpr const char* kInsertSample =
    "INSERT INTO samples (received_at, agent, is_text, name, object_id, stat_item, value, job_id, text_value,"
    " sample_time) VALUES (:received_at, :agent, :is_text, :name, :object_id, :stat_item, :value, :job_id,"
    " :text_value, :sample_time)";

constexpr const char* kInsertLine =
    "INSERT INTO real_time_lines (received_at, agent, line) VALUES (:received_at, :agent, :line)";

// An agent that has spoken before keeps its first_seen, and keeps a node path
// or address it once told when this request carries none.
constexpr const char* kTouchAgent =
    "INSERT INTO agents (name, node_path, address, first_seen, last_seen)"
    " VALUES (:name, :node_path, :address, :at, :at)"
    " ON CONFLICT (name) DO UPDATE SET last_seen = excluded.last_seen,"
    " node_path = CASE WHEN excluded.node_path <> '' THEN excluded.node_path ELSE agents.node_path END,"
    " address = CASE WHEN excluded.address <> '' THEN excluded.address ELSE agents.address END";

constexpr const char* kRecordHeartbeat =
    "INSERT INTO agents (name, node_path, address, first_seen, last_seen, last_heartbeat, version, job_count)"
    " VALUES (:name, :node_path, :address, :at, :at, :at, :version, :job_count)"
    " ON CONFLICT (name) DO UPDATE SET last_seen = excluded.last_seen,"
    " node_path = CASE WHEN excluded.node_path <> '' THEN excluded.node_path ELSE agents.node_path END,"
    " address = CASE WHEN excluded.address <> '' THEN excluded.address ELSE agents.address END,"
    " last_heartbeat = excluded.last_heartbeat, version = excluded.version, job_count = excluded.job_count";

constexpr const char* kSelectAgents =
    "SELECT name, node_path, address, first_seen, last_seen, last_heartbeat, version, job_count"
    " FROM agents ORDER BY name";

void BindSample(Statement& insert, const SampleRow& row) {
  insert.Bind(":received_at", row.received_at);
  insert.Bind(":agent", row.agent);
  insert.Bind(":is_text", int64_t{row.text ? 1 : 0});
  insert.Bind(":name", row.name);
  if (row.object_id) {
    insert.Bind(":object_id", int64_t{*row.object_id});
  } else {
    insert.BindNull(":object_id");
  }
  if (row.text) {
    insert.Bind(":job_id", int64_t{row.job_id});
    insert.Bind(":text_value", row.text_value);
    insert.Bind(":sample_time", int64_t{row.sample_time});
  } else {
    insert.Bind(":stat_item", int64_t{row.stat_item});
    insert.Bind(":value", row.value);
  }
}

SampleRow ReadSample(const Statement& select) {
  SampleRow row;
  row.id = select.Int(0);
  row.received_at = select.Int(1);
  row.agent = select.Text(2);
  row.text = select.Int(3) != 0;
  row.name = select.Text(4);
  if (!select.IsNull(5)) row.object_id = select.Uint32(5);
  row.stat_item = select.Uint32(6);
  row.value = select.Int(7);
  row.job_id = select.Uint32(8);
  row.text_value = select.Text(9);
  row.sample_time = select.Uint32(10);
  return row;
}

RealTimeLineRow ReadLine(const Statement& select) {
  RealTimeLineRow row;
  row.id = select.Int(0);
  row.received_at = select.Int(1);
  row.agent = select.Text(2);
  row.line = select.Text(3);
  return row;
}

AgentRow ReadAgent(const Statement& select) {
  AgentRow row;
  row.name = select.Text(0);
  row.node_path = select.Text(1);
  row.address = select.Text(2);
  row.first_seen = select.Int(3);
  row.last_seen = select.Int(4);
  row.last_heartbeat = select.Int(5);
  row.version = select.Text(6);
  row.job_count = select.Uint32(7);
  return row;
}

// The SELECT for a query: filters that are set become conditions on bound
// parameters. Newest first when the caller wants the last rows.
std::string SelectFor(const char* columnsAndTable, const SampleQuery& query, bool sampleFilters, bool newestFirst) {
  std::string sql = std::string("SELECT ") + columnsAndTable + " WHERE id > :after_id";
  if (!query.agent.empty()) sql += " AND agent = :agent";
  if (sampleFilters && query.object_id) sql += " AND object_id = :object_id";
  if (sampleFilters && !query.name.empty()) sql += " AND name = :name";
  if (sampleFilters && query.text_only) sql += " AND is_text = 1";
  sql += newestFirst ? " ORDER BY id DESC" : " ORDER BY id";
  return sql + " LIMIT :limit";
}

void BindQuery(Statement& select, const SampleQuery& query, bool sampleFilters) {
  select.Bind(":after_id", query.after_id);
  if (!query.agent.empty()) select.Bind(":agent", query.agent);
  if (sampleFilters && query.object_id) select.Bind(":object_id", int64_t{*query.object_id});
  if (sampleFilters && !query.name.empty()) select.Bind(":name", query.name);
  constexpr size_t kLargest = static_cast<size_t>(std::numeric_limits<int64_t>::max());
  select.Bind(":limit", static_cast<int64_t>(std::min(query.limit, kLargest)));
}

constexpr const char* kSampleColumns =
    "id, received_at, agent, is_text, name, object_id, stat_item, value, job_id, text_value, sample_time"
    " FROM samples";
constexpr const char* kLineColumns = "id, received_at, agent, line FROM real_time_lines";

std::vector<SampleRow> QuerySamples(sqlite3* pDb, const std::string& path, const SampleQuery& query,
                                    bool newestFirst, std::string* error) {
  std::vector<SampleRow> rows = RunQuery<SampleRow>(
      pDb, path, "cannot read samples", SelectFor(kSampleColumns, query, true, newestFirst),
      [&query](Statement& select) { BindQuery(select, query, true); }, ReadSample, error);
  if (newestFirst) std::reverse(rows.begin(), rows.end());
  return rows;
}

std::vector<RealTimeLineRow> QueryLines(sqlite3* pDb, const std::string& path, const SampleQuery& query,
                                        bool newestFirst, std::string* error) {
  std::vector<RealTimeLineRow> rows = RunQuery<RealTimeLineRow>(
      pDb, path, "cannot read real-time lines", SelectFor(kLineColumns, query, false, newestFirst),
      [&query](Statement& select) { BindQuery(select, query, false); }, ReadLine, error);
  if (newestFirst) std::reverse(rows.begin(), rows.end());
  return rows;
}

int64_t QueryLastId(sqlite3* pDb, const std::string& path, const char* sql, std::string* error) {
  std::vector<int64_t> last = RunQuery<int64_t>(
      pDb, path, "cannot read the last id", sql, [](Statement&) {},
      [](const Statement& select) { return select.Int(0); }, error);
  return last.empty() ? 0 : last.front();
}

struct AgentUpdate {
  const std::string& m_strName;
  const std::string& m_strNodePath;
  const std::string& m_strAddress;
  int64_t m_iAt;
};

void BindAgentUpdate(Statement& upsert, const AgentUpdate& update) {
  upsert.Bind(":name", update.m_strName);
  upsert.Bind(":node_path", update.m_strNodePath);
  upsert.Bind(":address", update.m_strAddress);
  upsert.Bind(":at", update.m_iAt);
}

}  // namespace

SampleStore::~SampleStore() { Close(); }

void SampleStore::Close() {
  sqlite3_close_v2(m_pDb);
  m_pDb = nullptr;
}

bool SampleStore::OpenWith(const std::string& path, int flags, std::string* error) {
  Close();
  m_strPath = path;
  int rc = sqlite3_open_v2(path.c_str(), &m_pDb, flags, nullptr);
  if (rc != SQLITE_OK) {
    std::string reason = m_pDb != nullptr ? sqlite3_errmsg(m_pDb) : sqlite3_errstr(rc);
    Close();
    return SetError(error, path + ": cannot open the database: " + reason);
  }
  sqlite3_busy_timeout(m_pDb, kBusyTimeoutMs);
  return true;
}

bool SampleStore::Open(const std::string& path, std::string* error) {
  m_bNotCreatedYet = false;
  if (!OpenWith(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error)) return false;
  std::string failure = PrepareForWriting(m_pDb, path);
  if (failure.empty()) return true;
  Close();
  return SetError(error, failure);
}

bool SampleStore::OpenReadOnly(const std::string& path, std::string* error) {
  m_bNotCreatedYet = false;
  struct stat info;
  if (::stat(path.c_str(), &info) != 0 && errno == ENOENT) {
    Close();
    m_bNotCreatedYet = true;
    return SetError(error, path + ": no such database (the control plane creates it when it starts)");
  }
  if (!OpenWith(path, SQLITE_OPEN_READONLY, error)) return false;
  std::string failure = CheckReadable(m_pDb, path, &m_bNotCreatedYet);
  if (failure.empty()) return true;
  Close();
  return SetError(error, failure);
}

bool SampleStore::AddSamples(const std::vector<SampleRow>& rows, std::string* error) {
  return RunWrite(m_pDb, m_strPath, "cannot store samples",
                  [this, &rows] {
                    // One statement for the whole batch: preparing it per row
                    // would cost more than the inserts themselves.
                    Statement insert(m_pDb, kInsertSample);
                    for (const SampleRow& row : rows) {
                      BindSample(insert, row);
                      int rc = insert.Step();
                      if (rc != SQLITE_DONE) return rc;
                      insert.Reset();
                    }
                    return SQLITE_DONE;
                  },
                  error);
}

bool SampleStore::AddRealTimeLine(const std::string& agent, int64_t receivedAt, const std::string& line,
                                  std::string* error) {
  return RunWrite(m_pDb, m_strPath, "cannot store a real-time line",
                  [&] {
                    Statement insert(m_pDb, kInsertLine);
                    insert.Bind(":received_at", receivedAt);
                    insert.Bind(":agent", agent);
                    insert.Bind(":line", line);
                    return insert.Step();
                  },
                  error);
}

bool SampleStore::TouchAgent(const std::string& name, const std::string& nodePath, const std::string& address,
                             int64_t at, std::string* error) {
  return RunWrite(m_pDb, m_strPath, "cannot record the agent",
                  [&] {
                    Statement upsert(m_pDb, kTouchAgent);
                    BindAgentUpdate(upsert, AgentUpdate{name, nodePath, address, at});
                    return upsert.Step();
                  },
                  error);
}

bool SampleStore::RecordHeartbeat(const std::string& name, const std::string& address, int64_t at,
                                  const std::string& version, uint32_t jobCount, std::string* error) {
  const std::string noNodePath;
  return RunWrite(m_pDb, m_strPath, "cannot record the heartbeat",
                  [&] {
                    Statement upsert(m_pDb, kRecordHeartbeat);
                    BindAgentUpdate(upsert, AgentUpdate{name, noNodePath, address, at});
                    upsert.Bind(":version", version);
                    upsert.Bind(":job_count", int64_t{jobCount});
                    return upsert.Step();
                  },
                  error);
}

bool SampleStore::Prune(int64_t cutoff, std::string* error) {
  return RunWrite(m_pDb, m_strPath, "cannot prune old rows",
                  [&] {
                    for (const char* sql : {"DELETE FROM samples WHERE received_at < :cutoff",
                                            "DELETE FROM real_time_lines WHERE received_at < :cutoff",
                                            "DELETE FROM latest_samples WHERE received_at < :cutoff"}) {
                      Statement remove(m_pDb, sql);
                      remove.Bind(":cutoff", cutoff);
                      int rc = remove.Step();
                      if (rc != SQLITE_DONE) return rc;
                    }
                    return SQLITE_DONE;
                  },
                  error);
}

std::vector<AgentRow> SampleStore::Agents(std::string* error) const {
  return RunQuery<AgentRow>(m_pDb, m_strPath, "cannot read agents", kSelectAgents, [](Statement&) {}, ReadAgent,
                            error);
}

std::vector<SampleRow> SampleStore::RecentSamples(const SampleQuery& query, std::string* error) const {
  return QuerySamples(m_pDb, m_strPath, query, true, error);
}

std::vector<SampleRow> SampleStore::SamplesAfter(const SampleQuery& query, std::string* error) const {
  return QuerySamples(m_pDb, m_strPath, query, false, error);
}

std::vector<LatestValueRow> SampleStore::LatestValues(const std::string& agent, std::string* error) const {
  std::string sql = std::string(kSelectLatest) + (agent.empty() ? "" : " WHERE agent = :agent");
  return RunQuery<LatestValueRow>(
      m_pDb, m_strPath, "cannot read the latest values", sql,
      [&agent](Statement& select) {
        if (!agent.empty()) select.Bind(":agent", agent);
      },
      [](const Statement& select) {
        return LatestValueRow{select.Text(0), select.Uint32(1), select.Text(2), select.Uint32(3), select.Int(4),
                              select.Int(5)};
      },
      error);
}

std::vector<SeriesPoint> SampleStore::SeriesPoints(const SeriesQuery& query, std::string* error) const {
  std::vector<SeriesPoint> points = RunQuery<SeriesPoint>(
      m_pDb, m_strPath, "cannot read the series", kSelectSeries,
      [&query](Statement& select) {
        select.Bind(":agent", query.agent);
        select.Bind(":object_id", int64_t{query.object_id});
        select.Bind(":name", query.name);
        select.Bind(":stat_item", int64_t{query.stat_item});
        select.Bind(":from", query.from);
        select.Bind(":to", query.to);
        select.Bind(":limit", static_cast<int64_t>(std::min<size_t>(query.limit, INT64_MAX)));
      },
      [](const Statement& select) { return SeriesPoint{select.Int(0), select.Int(1)}; }, error);
  std::reverse(points.begin(), points.end());
  return points;
}

std::vector<RealTimeLineRow> SampleStore::RecentRealTimeLines(const SampleQuery& query, std::string* error) const {
  return QueryLines(m_pDb, m_strPath, query, true, error);
}

std::vector<RealTimeLineRow> SampleStore::RealTimeLinesAfter(const SampleQuery& query, std::string* error) const {
  return QueryLines(m_pDb, m_strPath, query, false, error);
}

int64_t SampleStore::LastSampleId(std::string* error) const {
  return QueryLastId(m_pDb, m_strPath, "SELECT coalesce(max(id), 0) FROM samples", error);
}

int64_t SampleStore::LastRealTimeLineId(std::string* error) const {
  return QueryLastId(m_pDb, m_strPath, "SELECT coalesce(max(id), 0) FROM real_time_lines", error);
}

}  // namespace controlplane
