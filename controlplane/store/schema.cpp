// The store's tables and their versions (see schema.h).
#include "store/schema.h"

#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "store/sqlite_statement.h"

namespace controlplane::store {
namespace {

// The layout this code writes, kept in PRAGMA user_version. A database from a
// newer program may hold tables or meanings this one would misread or damage.
constexpr int64_t kSchemaVersion = 1;

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

}  // namespace

std::string PrepareForWriting(sqlite3* pDb, const std::string& path) {
  // Looked at before anything is changed: a newer program's database is left
  // exactly as it was, journal mode included.
  int64_t version = 0;
  if (!ReadSchemaVersion(pDb, &version)) return Failure(pDb, path, "cannot read the database");
  if (version > kSchemaVersion) return NewerSchema(path, version);
  // Every sample fires the trigger that keeps latest_samples, so every insert
  // keeps a statement journal; in a temporary file, a request of ten thousand
  // samples wrote it some 170,000 times and took five times the CPU. In memory
  // it costs a few pages.
  if (sqlite3_exec(pDb, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(pDb, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(pDb, "PRAGMA temp_store = MEMORY", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Failure(pDb, path, "cannot set up the database");
  }
  std::string failure;
  if (!RunWrite(pDb, path, "cannot create the tables", [pDb] { return CreateTablesIfMissing(pDb); }, &failure)) {
    return failure;
  }
  RunWrite(pDb, path, "cannot add the latest values", [pDb] { return AddLatestValuesIfMissing(pDb); }, &failure);
  return failure;
}

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

}  // namespace controlplane::store
