// There is no floating-point payload to read.
#include "vantdr/sqlite_value.h"

bool Probe(const VantDRCore::SqliteValue& value) {
  double out = 0;
  return value.GetValue(out);
}
