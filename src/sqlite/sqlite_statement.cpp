#include "vantdr/sqlite_statement.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "foundation/no_throw.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"

// Lines logged on behalf of a public operation carry its name.
#define VANTDR_LOG_AS(caller, ...)                                                              \
  do {                                                                                          \
    if (::VantDRCore::LogEnabled(LOG_ERR))                                                      \
      ::VantDRCore::LogPrintf(LOG_ERR, VANTDR_FILE_NAME, __LINE__, caller, "ERR", __VA_ARGS__); \
  } while (0)

namespace VantDRCore {

namespace {

// SQLite keeps no copy: the stored value outlives every step that reads it.
const sqlite3_destructor_type kKept = SQLITE_STATIC;
// Above this size a value is checked against SQLite's limit before it is copied.
const size_t kLargeValue = size_t{1} << 20;

}  // namespace

// --- the row -----------------------------------------------------------------

sqlite3_stmt* SqliteRow::Stmt() const { return statement_.running_ ? statement_.stmt_ : nullptr; }

int SqliteRow::Column(int index, const char* caller) const {
  sqlite3_stmt* stmt = Stmt();
  if (stmt == nullptr || index < 0 || index >= sqlite3_data_count(stmt)) {
    VANTDR_LOG_AS(caller, "Invalid column [%d]", index);
    return -1;
  }
  return index;
}

int SqliteRow::Column(const std::string& name, const char* caller) const {
  sqlite3_stmt* stmt = Stmt();
  const int columns = stmt == nullptr ? 0 : sqlite3_data_count(stmt);
  for (int i = 0; i < columns; ++i) {
    const char* column = sqlite3_column_name(stmt, i);
    if (column != nullptr && name == column) return i;
  }
  VANTDR_LOG_AS(caller, "Failed to find column [%s]", name.c_str());
  return -1;
}

int SqliteRow::GetColumnCount() const {
  sqlite3_stmt* stmt = Stmt();
  return stmt == nullptr ? 0 : sqlite3_data_count(stmt);
}

std::string SqliteRow::GetColumnName(int index) const try {
  const int i = Column(index, __func__);
  const char* name = i < 0 ? nullptr : sqlite3_column_name(Stmt(), i);
  return name == nullptr ? std::string() : std::string(name);
}
VANTDR_CATCH_ALL(std::string())

int SqliteRow::GetType(int index) const {
  const int i = Column(index, __func__);
  return i < 0 ? kSqliteNull : sqlite3_column_type(Stmt(), i);
}

int SqliteRow::GetType(const std::string& name) const {
  const int i = Column(name, __func__);
  return i < 0 ? kSqliteNull : sqlite3_column_type(Stmt(), i);
}

bool SqliteRow::IsNull(int index) const {
  const int i = Column(index, __func__);
  return i >= 0 && sqlite3_column_type(Stmt(), i) == SQLITE_NULL;
}

bool SqliteRow::IsNull(const std::string& name) const {
  const int i = Column(name, __func__);
  return i >= 0 && sqlite3_column_type(Stmt(), i) == SQLITE_NULL;
}

int64_t SqliteRow::GetInt64(int index) const {
  const int i = Column(index, __func__);
  return i < 0 ? 0 : static_cast<int64_t>(sqlite3_column_int64(Stmt(), i));
}

int64_t SqliteRow::GetInt64(const std::string& name) const {
  const int i = Column(name, __func__);
  return i < 0 ? 0 : static_cast<int64_t>(sqlite3_column_int64(Stmt(), i));
}

double SqliteRow::GetDouble(int index) const {
  const int i = Column(index, __func__);
  return i < 0 ? 0.0 : sqlite3_column_double(Stmt(), i);
}

double SqliteRow::GetDouble(const std::string& name) const {
  const int i = Column(name, __func__);
  return i < 0 ? 0.0 : sqlite3_column_double(Stmt(), i);
}

namespace {

// The pointer first, then its length: the order SQLite's conversions need.
std::string Text(sqlite3_stmt* stmt, int i) {
  if (i < 0) return std::string();
  const unsigned char* text = sqlite3_column_text(stmt, i);
  if (text == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
}

std::string Blob(sqlite3_stmt* stmt, int i) {
  if (i < 0) return std::string();
  const void* blob = sqlite3_column_blob(stmt, i);
  if (blob == nullptr) return std::string();
  return std::string(static_cast<const char*>(blob),
                     static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
}

}  // namespace

std::string SqliteRow::GetText(int index) const try {
  return Text(Stmt(), Column(index, __func__));
}
VANTDR_CATCH_ALL(std::string())

std::string SqliteRow::GetText(const std::string& name) const try {
  return Text(Stmt(), Column(name, __func__));
}
VANTDR_CATCH_ALL(std::string())

std::string SqliteRow::GetBlob(int index) const try {
  return Blob(Stmt(), Column(index, __func__));
}
VANTDR_CATCH_ALL(std::string())

std::string SqliteRow::GetBlob(const std::string& name) const try {
  return Blob(Stmt(), Column(name, __func__));
}
VANTDR_CATCH_ALL(std::string())

// --- preparing -----------------------------------------------------------------

SqliteStatement::SqliteStatement(SqliteDB& db, const std::string& sql)
    : SqliteStatement(db, sql, false) {}

SqliteStatement::SqliteStatement(SqliteDB& db, const std::string& sql, bool allowTail)
    : db_(db), sql_(sql), allowTail_(allowTail) {}

SqliteStatement::~SqliteStatement() { Finalize(); }

void SqliteStatement::Finalize() {
  if (stmt_ == nullptr) return;
  sqlite3_finalize(stmt_);
  stmt_ = nullptr;
  auto& list = db_.statements_;
  list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

int SqliteStatement::Prepare() {
  if (stmt_ != nullptr) return SQLITE_OK;
  if (!db_.Open()) {
    db_.SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("Failed to open db [%s]", db_.path_.c_str());
    return -1;
  }
  if (sql_.find('\0') != std::string::npos || sql_.size() > INT_MAX) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Invalid statement [%s]", sql_.c_str());
    return -1;
  }
  // Room first: registering must not fail once the statement exists.
  db_.statements_.reserve(db_.statements_.size() + 1);
  const char* tail = nullptr;
  sqlite3_stmt* stmt = nullptr;
  const int prepared = sqlite3_prepare_v2(db_.handle_, sql_.c_str(), -1, &stmt, &tail);
  if (prepared != SQLITE_OK) {
    db_.SetDBErr(prepared, nullptr);
    return prepared;
  }
  bool single = stmt != nullptr;
  if (single && !allowTail_) {
    // Whatever follows must hold no statement: blanks, ";" and comments.
    sqlite3_stmt* next = nullptr;
    single =
        sqlite3_prepare_v2(db_.handle_, tail, -1, &next, nullptr) == SQLITE_OK && next == nullptr;
    sqlite3_finalize(next);
  }
  if (!single) {
    sqlite3_finalize(stmt);
    db_.SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Not one statement [%s]", sql_.c_str());
    return -1;
  }
  stmt_ = stmt;
  db_.statements_.push_back(this);
  values_.resize(static_cast<size_t>(sqlite3_bind_parameter_count(stmt_)));
  // Prepared again after the connection closed: the bindings come back.
  for (size_t i = 0; i < values_.size(); ++i) {
    if (values_[i].type != 0) Apply(static_cast<int>(i + 1));
  }
  return SQLITE_OK;
}

// --- binding -------------------------------------------------------------------

bool SqliteStatement::Ready(const char* caller) {
  if (running_) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Statement [%s] is running", sql_.c_str());
    return false;
  }
  const int prepared = Prepare();
  if (prepared > 0) {
    db_.SetDBErr(ErrRecorder(db_));
    VANTDR_LOG_AS(caller, "Failed to prepare [%s] with err [%s]", sql_.c_str(),
                  JsonToString(db_.GetErr()).c_str());
  }
  return prepared == SQLITE_OK;
}

bool SqliteStatement::Ready(int index, const char* caller) {
  if (!Ready(caller)) return false;
  if (index < 1 || static_cast<size_t>(index) > values_.size()) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Invalid parameter index [%d] of [%s]", index, sql_.c_str());
    return false;
  }
  return true;
}

int SqliteStatement::IndexOf(const std::string& name, const char* caller) try {
  if (!Ready(caller)) return 0;
  const int index =
      name.find('\0') == std::string::npos ? sqlite3_bind_parameter_index(stmt_, name.c_str()) : 0;
  if (index == 0) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Invalid parameter name [%s] of [%s]", name.c_str(), sql_.c_str());
  }
  return index;
}
VANTDR_CATCH_ALL(0)

int SqliteStatement::Apply(int index) {
  const Value& value = values_[static_cast<size_t>(index - 1)];
  switch (value.type) {
    case SQLITE_INTEGER:
      return sqlite3_bind_int64(stmt_, index, value.integer);
    case SQLITE_FLOAT:
      return sqlite3_bind_double(stmt_, index, value.real);
    case SQLITE_TEXT:
      return sqlite3_bind_text64(stmt_, index, value.bytes.data(), value.bytes.size(), kKept,
                                 SQLITE_UTF8);
    case SQLITE_BLOB:
      return sqlite3_bind_blob64(stmt_, index, value.bytes.data(), value.bytes.size(), kKept);
    default:
      return sqlite3_bind_null(stmt_, index);
  }
}

bool SqliteStatement::Put(int index, int type, int64_t integer, double real, const void* bytes,
                          size_t size, const char* caller) try {
  // The checks of Ready, inline for the common case: a bulk load binds
  // millions of values.
  const bool ready =
      !running_ && stmt_ != nullptr && index >= 1 && static_cast<size_t>(index) <= values_.size();
  if (!ready && !Ready(index, caller)) return false;
  if (bytes == nullptr && size > 0) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Null data of [%zu] bytes for parameter [%d]", size, index);
    return false;
  }
  // A huge value is refused before the copy, as SQLite would refuse it after.
  if (size > kLargeValue &&
      size > static_cast<size_t>(sqlite3_limit(db_.handle_, SQLITE_LIMIT_LENGTH, -1))) {
    db_.SetErr(SQLITE_TOOBIG, Json::Value(sqlite3_errstr(SQLITE_TOOBIG)));
    return Refused(index, caller);
  }
  Value& slot = values_[static_cast<size_t>(index - 1)];
  slot.type = type;
  slot.integer = integer;
  slot.real = real;
  if (size > 0) {
    slot.bytes.assign(static_cast<const char*>(bytes), size);  // keeps its capacity
  } else {
    slot.bytes.clear();
  }
  const int bound = Apply(index);
  if (bound == SQLITE_OK) return true;  // the error record is left as it was
  db_.SetDBErr(bound, nullptr);
  return Refused(index, caller);
}
VANTDR_CATCH_ALL(false)

bool SqliteStatement::Refused(int index, const char* caller) {
  values_[static_cast<size_t>(index - 1)] = Value();
  sqlite3_bind_null(stmt_, index);
  db_.SetDBErr(ErrRecorder(db_));
  VANTDR_LOG_AS(caller, "Failed to bind parameter [%d] of [%s] with err [%s]", index, sql_.c_str(),
                JsonToString(db_.GetErr()).c_str());
  return false;
}

bool SqliteStatement::PutInteger(int index, long long value, const char* caller) {
  return Put(index, SQLITE_INTEGER, static_cast<int64_t>(value), 0.0, nullptr, 0, caller);
}

bool SqliteStatement::PutUnsigned(int index, unsigned long long value, const char* caller) try {
  if (value > static_cast<unsigned long long>(INT64_MAX)) {
    if (!Ready(index, caller)) return false;
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Value [%llu] out of range for parameter [%d]", value, index);
    return false;
  }
  return PutInteger(index, static_cast<long long>(value), caller);
}
VANTDR_CATCH_ALL(false)

bool SqliteStatement::Bind(int index, int value) { return PutInteger(index, value, __func__); }
bool SqliteStatement::Bind(int index, unsigned int value) {
  return PutInteger(index, value, __func__);
}
bool SqliteStatement::Bind(int index, long value) { return PutInteger(index, value, __func__); }
bool SqliteStatement::Bind(int index, unsigned long value) {
  return PutUnsigned(index, value, __func__);
}
bool SqliteStatement::Bind(int index, long long value) {
  return PutInteger(index, value, __func__);
}
bool SqliteStatement::Bind(int index, unsigned long long value) {
  return PutUnsigned(index, value, __func__);
}
bool SqliteStatement::Bind(int index, double value) {
  return Put(index, SQLITE_FLOAT, 0, value, nullptr, 0, __func__);
}
bool SqliteStatement::Bind(int index, const std::string& value) {
  return Put(index, SQLITE_TEXT, 0, 0.0, value.data(), value.size(), __func__);
}
bool SqliteStatement::Bind(int index, const char* value) {
  if (value == nullptr) return BindNull(index);
  return Put(index, SQLITE_TEXT, 0, 0.0, value, std::strlen(value), __func__);
}
bool SqliteStatement::BindBlob(int index, const void* data, size_t size) {
  // (nullptr, 0) is the empty blob: the stored bytes are never a null pointer.
  return Put(index, SQLITE_BLOB, 0, 0.0, data, size, __func__);
}
bool SqliteStatement::BindNull(int index) {
  return Put(index, SQLITE_NULL, 0, 0.0, nullptr, 0, __func__);
}

// By name: the index, then the same binding (a refused name logs once).
#define VANTDR_BIND_BY_NAME(Method, Type)                             \
  bool SqliteStatement::Method(const std::string& name, Type value) { \
    const int index = IndexOf(name, __func__);                        \
    return index != 0 && Method(index, value);                        \
  }
VANTDR_BIND_BY_NAME(Bind, int)
VANTDR_BIND_BY_NAME(Bind, unsigned int)
VANTDR_BIND_BY_NAME(Bind, long)
VANTDR_BIND_BY_NAME(Bind, unsigned long)
VANTDR_BIND_BY_NAME(Bind, long long)
VANTDR_BIND_BY_NAME(Bind, unsigned long long)
VANTDR_BIND_BY_NAME(Bind, double)
VANTDR_BIND_BY_NAME(Bind, const std::string&)
VANTDR_BIND_BY_NAME(Bind, const char*)
#undef VANTDR_BIND_BY_NAME

bool SqliteStatement::BindBlob(const std::string& name, const void* data, size_t size) {
  const int index = IndexOf(name, __func__);
  return index != 0 && BindBlob(index, data, size);
}

bool SqliteStatement::BindNull(const std::string& name) {
  const int index = IndexOf(name, __func__);
  return index != 0 && BindNull(index);
}

// --- running -------------------------------------------------------------------

int SqliteStatement::Attempt(const std::function<bool(const SqliteRow&)>& onRow, bool& handedOut) {
  const int prepared = Prepare();
  if (prepared != SQLITE_OK) return prepared;
  // A write of ours follows any batch: GetChanges reports it.
  if (!sqlite3_stmt_readonly(stmt_)) db_.batchChanges_ = -1;
  struct Running {  // reset even when the callback throws
    SqliteStatement& s;
    ~Running() {
      s.running_ = false;
      if (s.stmt_ != nullptr) sqlite3_reset(s.stmt_);  // keeps the bindings
    }
  } running{*this};
  running_ = true;
  int stepped;
  while ((stepped = sqlite3_step(stmt_)) == SQLITE_ROW) {
    if (!onRow) continue;
    handedOut = true;
    const bool more = onRow(SqliteRow(*this));
    if (stmt_ == nullptr) {  // the callback closed the database
      db_.SetErr(SQLITE_MISUSE, Json::Value("database closed while reading rows"));
      return SQLITE_MISUSE;
    }
    if (!more) break;
  }
  if (stepped != SQLITE_ROW && stepped != SQLITE_DONE) {
    db_.SetDBErr(stepped, nullptr);
    return stepped;
  }
  // Cleared only when set: this runs once per row of a bulk load.
  if (db_.GetErrCode() != 0 || !db_.GetErrMsg().isNull()) db_.SetErr(0);
  return SQLITE_OK;
}

bool SqliteStatement::Run(const std::function<bool(const SqliteRow&)>& onRow, const char* caller) {
  if (running_) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VANTDR_LOG_AS(caller, "Statement [%s] is running", sql_.c_str());
    return false;
  }
  unsigned int retries = 0;
  bool handedOut = false;
  for (;;) {
    const int result = Attempt(onRow, handedOut);
    if (result == SQLITE_OK) {
      if (retries > 0 && LogEnabled(LOG_INFO)) {
        LogPrintf(LOG_INFO, VANTDR_FILE_NAME, __LINE__, caller, "INFO",
                  "After retry [%u] times, success to exec command [%s]", retries, sql_.c_str());
      }
      return true;
    }
    if (result < 0) return false;  // refused: logged
    if (handedOut) {
      // Another attempt would hand the same rows out again.
      db_.SetDBErr(ErrRecorder(db_));
      break;
    }
    if (!db_.PrepareRetry(retries)) break;
  }
  VANTDR_LOG_AS(caller, "Reach retry limit [%u], failed to exec command [%s] with err [%s]",
                retries, sql_.c_str(), JsonToString(db_.GetErr()).c_str());
  return false;
}

bool SqliteStatement::Exec() try { return Run(nullptr, __func__); }
VANTDR_CATCH_ALL(false)

bool SqliteStatement::ForEachRow(const std::function<bool(const SqliteRow&)>& onRow) try {
  if (!onRow) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Empty callback for [%s]", sql_.c_str());
    return false;
  }
  return Run(onRow, __func__);
} catch (...) {
  db_.SetErr(ERR::ERR_UNKNOWN);
  VLOG_ERR("Callback failed for [%s]", sql_.c_str());
  return false;
}

}  // namespace VantDRCore
