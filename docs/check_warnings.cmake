# Counts Doxygen's warnings (one per "file:line: " entry) and fails on any.
file(STRINGS "${LOG}" entries REGEX ":[0-9]+: ")
list(LENGTH entries count)
if(count GREATER 0)
  file(READ "${LOG}" text)
  message("${text}")
  message(FATAL_ERROR "API reference: ${count} Doxygen warnings")
endif()
message("API reference: 0 Doxygen warnings; ${INDEX}")
