// Exceptions never leave the library: a public operation whose body may
// throw (an allocation that fails on huge input, or a callback of the caller)
// is written as a function-try-block ending in VANTDR_CATCH_ALL(result),
// which turns whatever was thrown into one ERR line and `result`.
#pragma once

#include <exception>
#include <new>

#include "vantdr/log.h"

#define VANTDR_CATCH_ALL(result)                     \
  catch (const std::bad_alloc&) {                    \
    VLOG_ERR("Failed to allocate memory");           \
    return result;                                   \
  }                                                  \
  catch (const std::exception& e) {                  \
    VLOG_ERR("Unexpected exception [%s]", e.what()); \
    return result;                                   \
  }                                                  \
  catch (...) {                                      \
    VLOG_ERR("Unexpected exception");                \
    return result;                                   \
  }
