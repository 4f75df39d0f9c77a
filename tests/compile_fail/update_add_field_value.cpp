// long long (int64_t on the 32-bit target) is not among the five types.
#include "vantdr/sqlite_command.h"

bool Probe(VantDRCore::UpdateCommand& update) { return update.AddFieldValue("size", 1LL << 40); }
