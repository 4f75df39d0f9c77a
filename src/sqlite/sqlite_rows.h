// Internal: rows of a query turned into records, shared by the select forms
// and the streamed one so that both give the same records and WARN lines.
#pragma once

#include <sqlite3.h>

#include "vantdr/sqlite_value.h"

namespace VantDRCore {

// Fills the empty `record` from the row `stmt` stands on: INTEGER and TEXT
// columns (text up to its first NUL); NULL, REAL and BLOB ones are left out
// with a WARN line each.
void ParseRecord(sqlite3_stmt* stmt, SqliteValueList& record);

}  // namespace VantDRCore
