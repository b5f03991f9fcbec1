#ifndef ORV_STORE_DATABASE_KEEPER_H_
#define ORV_STORE_DATABASE_KEEPER_H_

#include <sqlite3.h>

namespace orv {

// Puts the database into write-ahead-log mode for as long as the daemon runs and holds
// one idle connection to it meanwhile.
//
// Every event the agent logs is a statement of its own on a connection opened for it.
// In the rollback journal each such commit creates, syncs and deletes a journal file and
// syncs the database, several milliseconds per row, and a status request logs about a
// dozen rows: the requests and the copies' progress rows queue behind those syncs. In
// the write-ahead log a commit is one append, and the log rows (see RelaxLogSync) need
// no sync of their own at all. The idle connection keeps the log's shared index alive
// between the statements; without it every statement's close would be the last one and
// would fold the log back into the database.
//
// On destruction the database is folded back and returned to the rollback journal, so
// that a stopped agent leaves one plain file as before. A daemon that is killed leaves
// the log beside the file; the next connection of any kind replays it.
class DatabaseKeeper {
 public:
  DatabaseKeeper();
  virtual ~DatabaseKeeper();
  DatabaseKeeper(const DatabaseKeeper&) = delete;
  DatabaseKeeper& operator=(const DatabaseKeeper&) = delete;

  // Whether the database is in write-ahead-log mode through this keeper.
  bool active() const { return handle_ != nullptr; }

  // Whether some keeper of this process holds the database in write-ahead-log mode.
  static bool anyActive();

 private:
  sqlite3* handle_ = nullptr;
};

// Lets the caller's statements on the shared connection commit without waiting for the
// disk while a keeper holds the write-ahead log. Meant for the log table only: a crash of
// the machine can then cost the last log rows, never the database's consistency, while
// configuration, pairing and history keep their synced commits.
void RelaxLogSync(sqlite3* db);

}  // namespace orv

#endif  // ORV_STORE_DATABASE_KEEPER_H_
