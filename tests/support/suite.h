// What the test files share: the system headers they use most, GoogleTest,
// every public header of the library, and the suite's own helpers.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/db_files.h"
#include "support/jobs.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/test_cache.h"
#include "support/timing.h"
#include "vantcore/vlibc.h"
#include "vantdr/cache.h"
#include "vantdr/error.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/privileged_section.h"
#include "vantdr/request.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"
#include "vantdr/sqlite_transaction.h"
#include "vantdr/sqlite_value.h"
#include "vantdr/utils.h"
#include "vantdr/version.h"

using namespace VantDRCore;
using namespace VantDRTest;
