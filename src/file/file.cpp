#include "vantdr/file.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>
#include <istream>
#include <memory>
#include <sstream>

#include "fileio/durable_write.h"
#include "foundation/no_throw.h"
#include "vantcore/vlibc.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/privileged_section.h"

namespace VantDRCore {
namespace {

// A text input stream like std::ifstream, but on a close-on-exec descriptor:
// a program the caller starts meanwhile must not inherit the file.
class InputFile {
 public:
  explicit InputFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)), buf_(fd_, std::ios::in), in_(&buf_) {
    if (fd_ >= 0 && !buf_.is_open()) close(fd_);  // the buffer owns it only once open
  }
  bool is_open() const { return buf_.is_open(); }
  std::istream& stream() { return in_; }

 private:
  int fd_;
  __gnu_cxx::stdio_filebuf<char> buf_;
  std::istream in_;
};

}  // namespace

bool File::Read(const std::string& path, Json::Value& value) try {
  InputFile in(path);
  if (path.empty()) {
    VLOG_ERR("Invalid path");
    return false;
  }
  if (access(path.c_str(), F_OK) != 0) {
    VLOG_DEBUG("file[%s] is not existed", path.c_str());
    return true;
  }
  if (!in.is_open()) {
    VLOG_ERR("File[%s] is not opened.", path.c_str());
    return false;
  }
  // Line ends are dropped: JSON needs none between tokens.
  std::string text;
  std::string line;
  while (std::getline(in.stream(), line)) text += line;
  return JsonFromString(value, text);
}
VANTDR_CATCH_ALL(false)

bool File::Write(const std::string& path, const Json::Value& value) try {
  if (path.empty()) {
    VLOG_ERR("Empty path to write.");
    return false;
  }
  // Replaced atomically where nobody can tell, else written in place: see
  // the writer for the rule.
  const std::string text = JsonToString(value);
  if (text.empty()) return false;  // too deep to read back; JsonToString logged it
  switch (WriteFileDurably(path, text)) {
    case DurableWriteStep::kDone:
      return true;
    case DurableWriteStep::kOpen:
    case DurableWriteStep::kRefused:  // only asked for by the cache
      VLOG_ERR("Failed to open file [%s]", path.c_str());
      break;
    case DurableWriteStep::kWrite:
      VLOG_ERR("Failed to write [%s] to [%s].", text.c_str(), path.c_str());
      break;
    case DurableWriteStep::kFlush:
      VLOG_ERR("Failed to flush file[%s]", path.c_str());
      break;
    case DurableWriteStep::kSync:
      VLOG_ERR("Failed to sync file [%s]", path.c_str());
      break;
  }
  return false;
}
VANTDR_CATCH_ALL(false)

bool File::Read(int fd, Json::Value& value) try {
  FILE* file = fdopen(fd, "r");
  if (file == nullptr) {
    VLOG_ERR("Failed to open file descriptor [%d]", fd);
    return false;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> stream(file, fclose);  // closed when a read throws too
  std::ostringstream text;
  char buffer[1024];
  while (fgets(buffer, sizeof(buffer), file) != nullptr) text << buffer;
  stream.reset();
  return JsonFromString(value, text.str());
}
VANTDR_CATCH_ALL(false)

bool File::Write(int fd, const Json::Value& value) try {
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    VLOG_ERR("Failed to open file descriptor [%d]", fd);
    return false;
  }
  const std::string text = JsonToString(value);
  bool ok = false;
  if (text.empty()) {
    // Too deep to read back; JsonToString logged it.
  } else if (fprintf(file, "%s", text.c_str()) < 0) {
    VLOG_ERR("Failed to write [%s] to fd[%d]", text.c_str(), fd);
  } else if (fflush(file) != 0) {
    VLOG_ERR("Failed to flush file");
  } else if (fsync(fd) != 0) {
    VLOG_ERR("Failed to sync file");
  } else {
    ok = true;
  }
  fclose(file);
  return ok;
}
VANTDR_CATCH_ALL(false)

bool File::IsRegularFile(int fd) {
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  return S_ISREG(st.st_mode);
}

std::string File::GetParentDir(const std::string& path) try {
  if (path.empty()) return std::string();
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(0, slash);
}
VANTDR_CATCH_ALL(std::string())

bool File::CreateDir(const std::string& path, int mode) try {
  if (path.empty()) return false;
  if (VLIBCFileCheckDir(path.c_str()) == 1) return true;
  // Three octal digits at most: set-id and sticky bits are refused as well.
  const unsigned bits = static_cast<unsigned>(mode);
  if (bits >= 01000) {
    VLOG_ERR("Directory mode error: %o", bits);
    return false;
  }
  char modeText[4];
  const int length = snprintf(modeText, sizeof(modeText), "%o", bits);
  if (length < 0 || length > 3) {
    VLOG_ERR("snprintf error with mode [%o]", bits);
    return false;
  }
  int rc;
  {
    VANTDR_PRIVILEGED_SECTION(privileged);
    rc = VLIBCExec("/bin/mkdir", "-p", path.c_str(), "-m", modeText);
  }
  if (rc != 0) {
    VLOG_ERR("Failed to create dir [%s] with mode [%o]", path.c_str(), bits);
    return false;
  }
  return true;
}
VANTDR_CATCH_ALL(false)

bool File::RemoveDir(const std::string& path) {
  if (VLIBCFileCheckDir(path.c_str()) == 0) return true;
  return VLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr, nullptr) == 0;
}

template <typename K, typename V>
bool File::parseLineKeyValue(const std::string& line, const std::string& separator, K& key,
                             V& value, CheckedType) try {
  if (line.empty() || separator.empty()) {
    VLOG_WARN("Bad Parameter.");
    return false;
  }
  const std::string::size_type at = line.find(separator);
  if (at == std::string::npos) {
    VLOG_NOTICE("Cannot find separator[%s] in line[%s]", separator.c_str(), line.c_str());
    return false;
  }
  // Only the first separator splits: "a=b=c" is key "a", value "b=c".
  const std::string keyText = line.substr(0, at);
  const std::string valueText = line.substr(at + separator.size());
  if (!toType(keyText, key, K())) return false;
  return toType(valueText, value, V());
}
VANTDR_CATCH_ALL(false)

template <typename K, typename V>
int File::Read(const std::string& path, std::map<K, V>& map, CheckedType) try {
  InputFile in(path);
  if (path.empty()) {
    VLOG_ERR("Invalid path");
    return -1;
  }
  if (access(path.c_str(), F_OK) != 0) return 0;
  if (!in.is_open()) {
    VLOG_WARN("File[%s] is not opened.", path.c_str());
    return -1;
  }
  map.clear();
  std::string line;
  while (std::getline(in.stream(), line)) {
    K key{};
    V value{};
    if (!parseLineKeyValue(line, "=", key, value)) {
      VLOG_NOTICE("Failed to parse line[%s] from file [%s]", line.c_str(), path.c_str());
      continue;
    }
    map[key] = value;
  }
  return static_cast<int>(map.size());
}
VANTDR_CATCH_ALL(-1)

template VANTDR_API int File::Read<std::string, std::string>(const std::string&,
                                                             std::map<std::string, std::string>&,
                                                             CheckedType);
template VANTDR_API int File::Read<std::string, int>(const std::string&,
                                                     std::map<std::string, int>&, CheckedType);
template VANTDR_API int File::Read<std::string, double>(const std::string&,
                                                        std::map<std::string, double>&,
                                                        CheckedType);
template VANTDR_API bool File::parseLineKeyValue<std::string, std::string>(
    const std::string&, const std::string&, std::string&, std::string&, CheckedType);
template VANTDR_API bool File::parseLineKeyValue<std::string, int>(const std::string&,
                                                                   const std::string&, std::string&,
                                                                   int&, CheckedType);
template VANTDR_API bool File::parseLineKeyValue<std::string, double>(const std::string&,
                                                                      const std::string&,
                                                                      std::string&, double&,
                                                                      CheckedType);

}  // namespace VantDRCore
