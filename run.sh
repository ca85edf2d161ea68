#!/usr/bin/env bash
# Developer entry point: installs missing Debian packages, configures, builds, then runs what was asked.
#   ./run.sh demo     the example program
#   ./run.sh test     the test suites (CTest), at the widest processor level and at the plain one
#   ./run.sh bench    the benchmarks
#   ./run.sh asan     the test suites under AddressSanitizer and UndefinedBehaviorSanitizer
#   ./run.sh tsan     the test suites under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")"

packages=(g++ cmake make zlib1g-dev libboost-dev libboost-filesystem-dev libglm-dev libmd-dev
          libgtest-dev libgmock-dev libbenchmark-dev)

install_missing_packages() {
  local missing=()
  for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

# Every suite at the widest processor level this machine has, then again with every fast kernel replaced
# by its plain twin (IMAGERY_CPU=scalar); the packaging check needs only the first run.
run_tests() {
  local dir=$1
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
  echo "Again with the plain kernels (IMAGERY_CPU=scalar):"
  IMAGERY_CPU=scalar ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" -E install_and_consume
}

install_missing_packages
case "${1:-}" in
  demo)
    build build
    ./build/examples/imagery_demo
    ;;
  test)
    build build
    run_tests build
    ;;
  bench)
    # OpenCV is the benchmarks' optional peer; the build and the tests never need it.
    packages=(libopencv-dev)
    install_missing_packages
    build build-bench -DIMAGERY_BUILD_BENCHMARKS=ON -DIMAGERY_BUILD_TESTS=OFF
    ./build-bench/bench/imagery_bench "${@:2}"
    ;;
  asan)
    build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGERY_SANITIZE_ADDRESS=ON
    run_tests build-asan
    ;;
  tsan)
    build build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGERY_SANITIZE_THREAD=ON
    run_tests build-tsan
    ;;
  *)
    echo "usage: $0 demo|test|bench|asan|tsan" >&2
    exit 2
    ;;
esac
