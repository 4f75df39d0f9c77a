// What a builder's text may hold. Table names, field names, conditions and
// orderings reach SQLite as text, so text from a web request could close the
// builder's statement and start another: the record operations run a
// builder's text only when it is exactly one statement.
#pragma once

#include <string>

namespace VantDRCore {

// True when `sql` holds at most one statement (one trailing ";", blanks and
// comments allowed) and that statement is not ATTACH, DETACH or VACUUM.
bool IsSingleStatement(const std::string& sql);

}  // namespace VantDRCore
