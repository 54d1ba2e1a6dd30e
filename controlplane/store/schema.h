// The store's tables: what a new database is given, what an older one gains
// when a writer opens it, and the checks that keep this program away from a
// database a newer one wrote.
#ifndef OVITA2_CONTROLPLANE_STORE_SCHEMA_H
#define OVITA2_CONTROLPLANE_STORE_SCHEMA_H

#include <string>

struct sqlite3;

namespace controlplane::store {

// Sets a writer's connection up and creates the tables of a new database.
// Empty when all went well, else what went wrong.
std::string PrepareForWriting(sqlite3* pDb, const std::string& path);

// Empty when a reader can use the database, else why not; *notCreatedYet
// when the file holds no tables yet.
std::string CheckReadable(sqlite3* pDb, const std::string& path, bool* notCreatedYet);

}  // namespace controlplane::store

#endif  // OVITA2_CONTROLPLANE_STORE_SCHEMA_H
