// The store's way of speaking to SQLite: prepared statements with named
// parameters, write transactions that roll back unless committed, and the
// runners that turn a failure into one message naming the database.
// Internal to the store; one connection per caller, any thread that owns it.
#ifndef OVITA2_CONTROLPLANE_STORE_SQLITE_STATEMENT_H
#define OVITA2_CONTROLPLANE_STORE_SQLITE_STATEMENT_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace controlplane::store {

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

// False, with `message` in *error when error is not null.
bool SetError(std::string* error, std::string message);
// "<path>: <what>: <SQLite's message>".
std::string Failure(sqlite3* pDb, const std::string& path, const std::string& what);
std::string NotOpen();

// Runs `body` in one write transaction. `body` returns SQLITE_DONE when all
// went well, or the SQLite error that stopped it; then nothing is kept.
bool RunWrite(sqlite3* pDb, const std::string& path, const char* what, const std::function<int()>& body,
              std::string* error);

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

}  // namespace controlplane::store

#endif  // OVITA2_CONTROLPLANE_STORE_SQLITE_STATEMENT_H
