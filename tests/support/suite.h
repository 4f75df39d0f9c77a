// What the test files share: system headers, GoogleTest, the library's public headers (some
// through the others) and the suite's own helpers.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/db_files.h"
#include "support/jobs.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/test_cache.h"
#include "support/timing.h"
#include "vantcore/vlibc.h"
#include "vantdr/cache.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/privileged_section.h"
#include "vantdr/request.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_statement.h"
#include "vantdr/sqlite_transaction.h"
#include "vantdr/utils.h"
#include "vantdr/version.h"

using namespace VantDRCore;
using namespace VantDRTest;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;
