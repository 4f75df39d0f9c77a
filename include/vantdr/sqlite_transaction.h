// A scoped transaction on one SqliteDB.
//
//   SqliteTransaction transaction(db);
//   if (!transaction.Begin()) return false;        // BEGIN IMMEDIATE
//   ... db.InsertRecord(...), db.UpdateRecord(...) ...
//   return transaction.Commit();                   // otherwise rolled back
//
// Begin and Commit run through the object's retry policy: a BUSY or LOCKED
// answer is retried up to its retry limit, 1-2 s apart, with the log lines
// and error record (404, 405) of SqliteDB::Exec. Begin takes the write lock
// at once, so the statements inside never wait for another writer; Commit
// may still wait for readers to finish.
#pragma once

#include "vantdr/export.h"
#include "vantdr/sqlite_db.h"

namespace VantDRCore {

class VANTDR_API SqliteTransaction {
 public:
  // Binds the guard to `db`, which must outlive it. Starts nothing.
  explicit SqliteTransaction(SqliteDB& db);
  // Rolls back a transaction that was begun and not committed.
  ~SqliteTransaction();

  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;

  // Starts the transaction: every statement run through the SqliteDB from
  // now on belongs to it. Refused (false, 401, ERR line) while a guard on
  // the same object, this one included, holds a transaction.
  bool Begin();

  // Makes the transaction's changes durable. On failure the transaction
  // stays open when SQLite kept it (Commit may be tried again; the guard
  // rolls it back at the end), and closes when SQLite ended it. False (401,
  // ERR line) when no transaction is held.
  bool Commit();

  // Discards the transaction's changes. The error record is left as it was,
  // so the failure that led here stays readable. False (ERR line) when no
  // transaction is held.
  bool Rollback();

  // True between a successful Begin and the end of the transaction.
  bool IsActive() const;

 private:
  // Rolls back whatever is still open and gives the object's slot back.
  void Abandon();

  SqliteDB& db_;
};

}  // namespace VantDRCore
