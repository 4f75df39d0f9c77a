# Sourced: builds consumer.cpp outside the source tree once through
# find_package and once through pkg-config, and runs both. The caller's
# environment says where the package is (CMAKE_PREFIX_PATH,
# PKG_CONFIG_PATH, LD_LIBRARY_PATH) or leaves the system's defaults.
consume() {
  local here=$1 work=$2
  mkdir -p "$work/run1" "$work/run2"
  cmake -S "$here" -B "$work/cmake-build" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; return 1; }
  cmake --build "$work/cmake-build" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; return 1; }
  "$work/cmake-build/consumer" "$work/run1"
  # shellcheck disable=SC2046
  c++ -std=c++17 -o "$work/consumer-pc" "$here/consumer.cpp" $(pkg-config --cflags --libs vantdrcore)
  "$work/consumer-pc" "$work/run2"
}
