// The size and alignment of every public class, as seen by one translation
// unit: a caller's flags must not change them.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "vantdr/cache.h"
#include "vantdr/error.h"
#include "vantdr/file_lock.h"
#include "vantdr/request.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"
#include "vantdr/sqlite_value.h"

namespace VantDRTest {

struct ClassLayout {
  std::string name;
  size_t size, align;
  bool operator==(const ClassLayout& o) const {
    return name == o.name && size == o.size && align == o.align;
  }
  friend std::ostream& operator<<(std::ostream& out, const ClassLayout& l) {
    return out << l.name << " " << l.size << "/" << l.align;
  }
};

#define VANTDR_LAYOUT_OF(type) \
  ClassLayout { #type, sizeof(VantDRCore::type), alignof(VantDRCore::type) }

// Expands to the layouts of all public classes in this translation unit.
#define VANTDR_PUBLIC_LAYOUTS                                                                      \
  std::vector<ClassLayout> {                                                                       \
    VANTDR_LAYOUT_OF(Cache), VANTDR_LAYOUT_OF(ErrRecorder), VANTDR_LAYOUT_OF(FileLock),            \
        VANTDR_LAYOUT_OF(UploadFileDescription), VANTDR_LAYOUT_OF(Request),                        \
        VANTDR_LAYOUT_OF(Response), VANTDR_LAYOUT_OF(SqliteTableHandler),                          \
        VANTDR_LAYOUT_OF(InsertCommand), VANTDR_LAYOUT_OF(UpdateCommand),                          \
        VANTDR_LAYOUT_OF(SelectCommand), VANTDR_LAYOUT_OF(DeleteCommand),                          \
        VANTDR_LAYOUT_OF(SqliteEqual), VANTDR_LAYOUT_OF(SqliteNotEqual),                           \
        VANTDR_LAYOUT_OF(SqliteAnd), VANTDR_LAYOUT_OF(SqliteOr), VANTDR_LAYOUT_OF(SqliteIn),       \
        VANTDR_LAYOUT_OF(SqliteNotIn), VANTDR_LAYOUT_OF(SqliteIsNull), VANTDR_LAYOUT_OF(SqliteDB), \
        VANTDR_LAYOUT_OF(SqliteValue), VANTDR_LAYOUT_OF(SqliteValueList),                          \
        VANTDR_LAYOUT_OF(SqliteRecord), VANTDR_LAYOUT_OF(SqliteStatement),                         \
        VANTDR_LAYOUT_OF(SqliteRow)                                                                \
  }

// The layouts seen by a caller built without _FILE_OFFSET_BITS and
// _TIME_BITS (32-bit off_t and time_t on 32-bit ARM).
std::vector<ClassLayout> LayoutsWithDefaultFlags();

}  // namespace VantDRTest
