// The store's statements, transactions and runners (see sqlite_statement.h).
#include "store/sqlite_statement.h"

#include <utility>

namespace controlplane::store {

bool SetError(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return false;
}

std::string Failure(sqlite3* pDb, const std::string& path, const std::string& what) {
  return path + ": " + what + ": " + sqlite3_errmsg(pDb);
}

std::string NotOpen() { return "the sample database is not open"; }

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

}  // namespace controlplane::store
