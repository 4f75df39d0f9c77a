// Internal: the transaction machinery shared by batches and the guard.
#pragma once

#include <string>
#include <vector>

#include "vantdr/sqlite_db.h"

namespace VantDRCore {

class SqliteDB::Batch {
 public:
  // One command of a batch. `shape` is its statement with "?" in place of
  // each value of `values` (in field order), or "" when only the literal
  // text can be trusted to mean the same.
  struct Item {
    const SqliteCommand* command;
    const SqliteValueList* values;
    std::string shape;
  };

  // Runs `items` as one transaction under the object's retry policy.
  static bool ExecBatch(SqliteDB& db, const std::vector<Item>& items);
  // The same for builders, each given the statement shape `shape` makes.
  template <typename Command>
  static bool ExecBatch(SqliteDB& db, const std::vector<Command>& commands,
                        std::string (*shape)(const Command&));

  // Ends the open transaction, or with `nested` the batch's savepoint,
  // discarding its changes; leaves the error record as it was. When a
  // transaction cannot be rolled back it closes the connection, which
  // rolls it back.
  static void Discard(SqliteDB& db, bool nested);

 private:
  // One try of the whole batch; a failure is rolled back, and leaves the
  // converted error in the record and in `failed` the statement (or table)
  // that failed.
  static bool Attempt(SqliteDB& db, bool nested, const std::vector<Item>& items,
                      std::string& failed);
  // The part of an attempt inside the transaction: tables, statements,
  // COMMIT (or RELEASE).
  static bool Apply(SqliteDB& db, bool nested, const std::vector<Item>& items, std::string& failed);
};

}  // namespace VantDRCore
