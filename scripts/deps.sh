# Sourced by the scripts: installs the Debian packages the build needs when
# any is missing. Set VANTDR_EXTRA_PACKAGES for more.
vantdr_install_deps() {
  local packages=(cmake g++ make pkg-config libsqlite3-dev libjsoncpp-dev libgtest-dev
                  libgmock-dev libbenchmark-dev uuid-runtime dpkg-dev doxygen
                  ${VANTDR_EXTRA_PACKAGES:-})
  local missing=()
  local p
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  # A mirror caught mid-sync fails one index; the rest still serve.
  $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq ||
    echo "apt-get update reported errors; installing with what it has"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends \
    "${missing[@]}"
}
