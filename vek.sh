#!/usr/bin/env bash
# One entry point for building and testing on a Debian 12 machine.
#
#   ./vek.sh run                install what is missing, build, run the conformance executable
#   ./vek.sh test [PRESET...]   install what is missing, build, run every test (ctest)
#   ./vek.sh deps [PRESET...]   only install what is missing
#
# Extra arguments of `run` go to the conformance executable. `test` and
# `deps` take the presets named, in the order named (default: all, in the
# order below); packages are installed for those presets only.
set -euo pipefail
cd "$(dirname "$0")"

# The presets that `test` builds and runs, in this order.
# soak builds the conformance executable once more, annotated for valgrind,
# for its long checks (valgrind, repeated runs).
TEST_PRESETS=(host soak asan tsan fuzz clang aarch64)

# Debian packages each preset needs to build and run its tests. The host
# preset's also serve tools/bench_report.sh: benchmark, boost and libbsd
# for bench/, gnuplot for the report's chart.
packages_for() {
  case "$1" in
    host) echo cmake ninja-build g++ pkg-config libgtest-dev android-liblog-dev libbsd-dev libxml2-dev \
        libbenchmark-dev libboost-dev gnuplot-nox ;;
    clang) echo cmake ninja-build g++ clang pkg-config libgtest-dev android-liblog-dev libxml2-dev ;;
    aarch64) echo cmake ninja-build g++ g++-aarch64-linux-gnu qemu-user pkg-config \
        libgtest-dev:arm64 android-liblog-dev:arm64 libxml2-dev:arm64 ;;
    soak) echo cmake ninja-build g++ pkg-config libgtest-dev android-liblog-dev libxml2-dev valgrind ;;
    asan|tsan|fuzz) echo cmake ninja-build g++ clang-14 libclang-rt-14-dev pkg-config libgtest-dev android-liblog-dev \
        libxml2-dev ;;
    *) echo "vek.sh: unknown preset $1" >&2; return 1 ;;
  esac
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the packages given that are not installed yet; apt is left alone
# when nothing is missing, so a prepared machine needs no network.
install_missing() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "vek.sh: installing ${missing[*]}"
  # Packages of another architecture (name:arm64) need it known to dpkg
  # before apt-get update fetches its package lists.
  local arch
  for arch in $(printf '%s\n' "${missing[@]}" | sed -n 's/^[^:]*:\(.*\)$/\1/p' | sort -u); do
    dpkg --print-foreign-architectures | grep -qx "$arch" ||
      as_root dpkg --add-architecture "$arch"
  done
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

build() {
  local preset=$1
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
}

# The presets named on the command line, or all of them; an unknown name
# stops the script before anything is installed or built.
select_presets() {
  presets=("$@")
  [ ${#presets[@]} -eq 0 ] && presets=("${TEST_PRESETS[@]}")
  local preset
  for preset in "${presets[@]}"; do
    case " ${TEST_PRESETS[*]} " in
      *" $preset "*) ;;
      *) echo "vek.sh: unknown preset $preset (known: ${TEST_PRESETS[*]})" >&2; exit 2 ;;
    esac
  done
}

cmd=${1:-}
[ $# -gt 0 ] && shift
case "$cmd" in
  deps)
    select_presets "$@"
    for preset in "${presets[@]}"; do
      install_missing $(packages_for "$preset")
    done
    ;;
  run)
    install_missing $(packages_for host)
    build host
    exec build/host/bin/vek_ut_osal_common "$@"
    ;;
  test)
    select_presets "$@"
    for preset in "${presets[@]}"; do
      install_missing $(packages_for "$preset")
    done
    for preset in "${presets[@]}"; do
      echo "vek.sh: === preset $preset"
      build "$preset"
      ctest --preset "$preset"
    done
    ;;
  *)
    sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'
    exit 2
    ;;
esac
