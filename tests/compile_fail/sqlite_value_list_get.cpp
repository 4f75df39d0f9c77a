// There is no floating-point payload to read.
#include "vantdr/sqlite_value.h"

bool Probe(const VantDRCore::SqliteValueList& record) {
  float out = 0;
  return record.GetValue("ratio", out);
}
