// SampleStore: the control plane's SQLite database (see sample_store.h).
#include "store/sample_store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>
#include <utility>

namespace controlplane {
namespace {

// The layout this code writes, kept in PRAGMA user_version. A database from a
// newer program may hold tables or meanings this one would misread or damage.
constexpr int64_t kSchemaVersion = 1;

// The plug-in writes while the client reads; a connection that finds the
// database locked waits this long before it gives up.
constexpr int kBusyTimeoutMs = 5000;

// AUTOINCREMENT: an id is never handed out twice, even after Prune emptied a
// table. A follower remembers the last id it showed and asks for larger ones;
// reused lower ids would be rows it never shows.
// The non-applicable columns of a sample (value of a text sample, text of a
// numeric one) stay NULL.
constexpr const char* kCreateSchema = R"sql(
CREATE TABLE agents (
  name TEXT PRIMARY KEY NOT NULL CHECK (name <> ''),
  node_path TEXT NOT NULL DEFAULT '',
  address TEXT NOT NULL DEFAULT '',
  first_seen INTEGER NOT NULL,
  last_seen INTEGER NOT NULL,
  last_heartbeat INTEGER NOT NULL DEFAULT 0,
  version TEXT NOT NULL DEFAULT '',
  job_count INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE samples (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received_at INTEGER NOT NULL,
  agent TEXT NOT NULL CHECK (agent <> ''),
  is_text INTEGER NOT NULL CHECK (is_text IN (0, 1)),
  name TEXT NOT NULL,
  object_id INTEGER,
  stat_item INTEGER,
  value INTEGER,
  job_id INTEGER,
  text_value TEXT,
  sample_time INTEGER
);
CREATE INDEX samples_by_agent ON samples (agent, id);
CREATE INDEX samples_by_object ON samples (object_id, id);
CREATE INDEX samples_by_name ON samples (name, id);
CREATE INDEX samples_by_received_at ON samples (received_at);
CREATE TABLE real_time_lines (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received_at INTEGER NOT NULL,
  agent TEXT NOT NULL CHECK (agent <> ''),
  line TEXT NOT NULL
);
CREATE INDEX real_time_lines_by_agent ON real_time_lines (agent, id);
CREATE INDEX real_time_lines_by_received_at ON real_time_lines (received_at);
)sql";

// Added to databases of any age when opened for writing; older programs
// reading or writing the same file keep working, the trigger keeps the table
// true for them too. The latest value of every series is read on each scrape
// of /metrics, so it is kept up to date on insert rather than searched for
// among all samples; a series' chart reads its range through the index.
constexpr const char* kCreateLatestValues = R"sql(
CREATE TABLE latest_samples (
  agent TEXT NOT NULL,
  object_id INTEGER NOT NULL,
  name TEXT NOT NULL,
  stat_item INTEGER NOT NULL,
  sample_id INTEGER NOT NULL,
  received_at INTEGER NOT NULL,
  value INTEGER NOT NULL,
  PRIMARY KEY (agent, object_id, name, stat_item)
) WITHOUT ROWID;
INSERT INTO latest_samples
  SELECT agent, object_id, name, stat_item, max(id), received_at, value FROM samples
  WHERE is_text = 0 AND object_id IS NOT NULL GROUP BY agent, object_id, name, stat_item;
CREATE TRIGGER IF NOT EXISTS samples_keep_latest AFTER INSERT ON samples
  WHEN NEW.is_text = 0 AND NEW.object_id IS NOT NULL
BEGIN
  INSERT INTO latest_samples VALUES (NEW.agent, NEW.object_id, NEW.name, NEW.stat_item, NEW.id, NEW.received_at,
                                     NEW.value)
    ON CONFLICT DO UPDATE SET sample_id = excluded.sample_id, received_at = excluded.received_at,
                              value = excluded.value;
END;
CREATE INDEX IF NOT EXISTS samples_by_series ON samples (agent, object_id, name, stat_item, received_at)
  WHERE is_text = 0;
)sql";

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

// One prepared statement; parameters are bound by name. The first failure
// (preparing or binding) is kept and reported by Step, so a caller checks once.
class Statement {
 public:
  Statement(sqlite3* pDb, const std::string& sql) {
    m_iFirstError = sqlite3_prepare_v2(pDb, sql.c_str(), -1, &m_pStmt, nullptr);
  }
  ~Statement() { sqlite3_finalize(m_pStmt); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void Bind(const char* name, int64_t value) {
    if (m_pStmt != nullptr) Keep(sqlite3_bind_int64(m_pStmt, Index(name), value));
  }
  void Bind(const char* name, const std::string& value) {
    if (m_pStmt != nullptr) {
      Keep(sqlite3_bind_text64(m_pStmt, Index(name), value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
    }
  }
  void BindNull(const char* name) {
    if (m_pStmt != nullptr) Keep(sqlite3_bind_null(m_pStmt, Index(name)));
  }

  // SQLITE_ROW, SQLITE_DONE, or the error that stopped it.
  int Step() { return m_iFirstError != SQLITE_OK ? m_iFirstError : sqlite3_step(m_pStmt); }
  // Ready for the next row of a batch, with no value left over from this one.
  void Reset() {
    sqlite3_reset(m_pStmt);
    sqlite3_clear_bindings(m_pStmt);
  }

  bool IsNull(int column) const { return sqlite3_column_type(m_pStmt, column) == SQLITE_NULL; }
  int64_t Int(int column) const { return sqlite3_column_int64(m_pStmt, column); }
  uint32_t Uint32(int column) const { return static_cast<uint32_t>(Int(column)); }
  std::string Text(int column) const {
    // Read by length: a text sample may hold NUL bytes.
    const unsigned char* text = sqlite3_column_text(m_pStmt, column);
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(m_pStmt, column)));
  }

 private:
  int Index(const char* name) const { return sqlite3_bind_parameter_index(m_pStmt, name); }
  void Keep(int rc) {
    if (m_iFirstError == SQLITE_OK) m_iFirstError = rc;
  }

  sqlite3_stmt* m_pStmt = nullptr;
  int m_iFirstError = SQLITE_OK;
};

// BEGIN IMMEDIATE takes the write lock up front, so a write never fails half
// way because another writer got there first. Anything not committed is
// rolled back when this goes out of scope.
class WriteTransaction {
 public:
  explicit WriteTransaction(sqlite3* pDb) : m_pDb(pDb) {
    m_bBegun = sqlite3_exec(pDb, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  ~WriteTransaction() {
    // SQLite may already have rolled back by itself (after a disk-full error, say).
    if (m_bBegun && !m_bCommitted && sqlite3_get_autocommit(m_pDb) == 0) {
      sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;

  bool Begun() const { return m_bBegun; }
  bool Commit() {
    m_bCommitted = sqlite3_exec(m_pDb, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return m_bCommitted;
  }

 private:
  sqlite3* m_pDb;
  bool m_bBegun = false;
  bool m_bCommitted = false;
};

bool SetError(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return false;
}

std::string Failure(sqlite3* pDb, const std::string& path, const std::string& what) {
  return path + ": " + what + ": " + sqlite3_errmsg(pDb);
}

std::string NotOpen() { return "the sample database is not open"; }

// Runs `body` in one write transaction. `body` returns SQLITE_DONE when all
// went well, or the SQLite error that stopped it; then nothing is kept.
bool RunWrite(sqlite3* pDb, const std::string& path, const char* what, const std::function<int()>& body,
              std::string* error) {
  if (pDb == nullptr) return SetError(error, NotOpen());
  WriteTransaction transaction(pDb);
  if (!transaction.Begun()) return SetError(error, Failure(pDb, path, what));
  int rc = body();
  if (rc != SQLITE_DONE && rc != SQLITE_OK) return SetError(error, Failure(pDb, path, what));
  if (!transaction.Commit()) return SetError(error, Failure(pDb, path, what));
  return true;
}

// Runs one SELECT: `bind` fills its parameters, `read` turns a result row into
// a Row. Empty with a message on failure.
template <typename Row>
std::vector<Row> RunQuery(sqlite3* pDb, const std::string& path, const char* what, const std::string& sql,
                          const std::function<void(Statement&)>& bind,
                          const std::function<Row(const Statement&)>& read, std::string* error) {
  if (error != nullptr) error->clear();
  if (pDb == nullptr) {
    SetError(error, NotOpen());
    return {};
  }
  Statement select(pDb, sql);
  bind(select);
  std::vector<Row> rows;
  int rc;
  while ((rc = select.Step()) == SQLITE_ROW) rows.push_back(read(select));
  if (rc != SQLITE_DONE) {
    SetError(error, Failure(pDb, path, what));
    return {};
  }
  return rows;
}

bool ReadSchemaVersion(sqlite3* pDb, int64_t* version) {
  Statement pragma(pDb, "PRAGMA user_version");
  if (pragma.Step() != SQLITE_ROW) return false;
  *version = pragma.Int(0);
  return true;
}

std::string NewerSchema(const std::string& path, int64_t version) {
  return path + ": the database has schema version " + std::to_string(version) + ", newer than the " +
         std::to_string(kSchemaVersion) + " this program knows; it was written by a newer control plane";
}

int CreateTablesIfMissing(sqlite3* pDb) {
  // Checked again inside the write lock: another control plane may have
  // created them since this one looked.
  int64_t version = 0;
  if (!ReadSchemaVersion(pDb, &version)) return sqlite3_errcode(pDb);
  if (version != 0) return SQLITE_DONE;
  int rc = sqlite3_exec(pDb, kCreateSchema, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) return rc;
  std::string setVersion = "PRAGMA user_version = " + std::to_string(kSchemaVersion);
  return sqlite3_exec(pDb, setVersion.c_str(), nullptr, nullptr, nullptr);
}

int AddLatestValuesIfMissing(sqlite3* pDb) {
  {
    // Finalised before the script runs: finalising afterwards would clear
    // the script's error message.
    Statement exists(pDb, "SELECT count(*) FROM sqlite_master WHERE name = 'latest_samples'");
    if (exists.Step() != SQLITE_ROW) return sqlite3_errcode(pDb);
    if (exists.Int(0) != 0) return SQLITE_DONE;
  }
  return sqlite3_exec(pDb, kCreateLatestValues, nullptr, nullptr, nullptr);
}

// Sets a writer's connection up and creates the tables of a new database.
// Empty when all went well, else what went wrong.
std::string PrepareForWriting(sqlite3* pDb, const std::string& path) {
  // Looked at before anything is changed: a newer program's database is left
  // exactly as it was, journal mode included.
  int64_t version = 0;
  if (!ReadSchemaVersion(pDb, &version)) return Failure(pDb, path, "cannot read the database");
  if (version > kSchemaVersion) return NewerSchema(path, version);
  if (sqlite3_exec(pDb, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(pDb, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Failure(pDb, path, "cannot set up the database");
  }
  std::string failure;
  if (!RunWrite(pDb, path, "cannot create the tables", [pDb] { return CreateTablesIfMissing(pDb); }, &failure)) {
    return failure;
  }
  RunWrite(pDb, path, "cannot add the latest values", [pDb] { return AddLatestValuesIfMissing(pDb); }, &failure);
  return failure;
}

// Empty when a reader can use the database, else why not.
std::string CheckReadable(sqlite3* pDb, const std::string& path, bool* notCreatedYet) {
  int64_t version = 0;
  if (!ReadSchemaVersion(pDb, &version)) return Failure(pDb, path, "cannot read the database");
  if (version > kSchemaVersion) return NewerSchema(path, version);
  if (version == 0) {
    // The control plane creates the file first and its tables a moment later.
    *notCreatedYet = true;
    return path + ": no such database yet (the file holds no sample tables)";
  }
  return std::string();
}

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
