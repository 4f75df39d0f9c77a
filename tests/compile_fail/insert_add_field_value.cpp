// A string literal is neither std::string nor any other supported type.
#include "vantdr/sqlite_command.h"

bool Probe(VantDRCore::InsertCommand& insert) { return insert.AddFieldValue("state", "queued"); }
