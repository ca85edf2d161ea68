#!/usr/bin/env bash
# Developer entry point: installs missing Debian packages, configures, builds, then runs what was asked.
#   ./run.sh demo [folder]   the imagery tool's demo: sample textures through every command, and a
#                            contact sheet of the results (default folder: demo-output)
#   ./run.sh example  the example program of the library alone
#   ./run.sh test     the test suites (CTest), at the widest processor level and at the plain one
#   ./run.sh bench    the benchmarks
#   ./run.sh peers    one table of our operations beside OpenCV's (README, "Speed")
#   ./run.sh asan     the test suites under AddressSanitizer and UndefinedBehaviorSanitizer
#   ./run.sh tsan     the test suites under ThreadSanitizer
#   ./run.sh fuzz [seconds]   every libFuzzer target from its checked-in corpus (clang; 60 s each)
#   ./run.sh faults   plants each fault of tests/faults/faults.json in turn; every one must be caught
# IMAGERY_PLAIN_RUN=0 skips the second run of the suites with the plain kernels.
set -euo pipefail
cd "$(dirname "$0")"

packages=(g++ cmake make zlib1g-dev libboost-dev libboost-filesystem-dev libglm-dev libmd-dev
          libgtest-dev libgmock-dev libbenchmark-dev)
# imagery::io: the codec libraries it calls.
packages+=(libpng-dev libjpeg62-turbo-dev libopenexr-dev libtiff-dev libstb-dev)
# The imagery tool: its command line, and the captions of the demo's contact sheet.
packages+=(libcli11-dev libfreetype-dev fonts-dejavu-core)

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
  local status=0
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" || status=1
  if [ "${IMAGERY_PLAIN_RUN:-1}" != 0 ]; then
    echo "Again with the plain kernels (IMAGERY_CPU=scalar):"
    IMAGERY_CPU=scalar ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" -E install_and_consume || status=1
  fi
  return $status
}

# Each target writes what it finds into a scratch copy, so the checked-in corpus changes only by hand.
run_fuzzers() {
  local seconds=$1 status=0
  local scratch
  scratch=$(mktemp -d)
  for target in build-fuzz/fuzz/*_fuzz; do
    local name
    name=$(basename "$target" _fuzz)
    mkdir -p "$scratch/$name" "$scratch/artifacts"
    echo "Fuzzing $name for ${seconds}s"
    # A target without a checked-in corpus yet starts from nothing rather than failing.
    local inputs=()
    [ -d "fuzz/corpus/$name" ] && inputs=("fuzz/corpus/$name")
    if "$target" "$scratch/$name" "${inputs[@]}" -max_total_time="$seconds" -max_len=4096 \
         -rss_limit_mb=2048 -timeout=10 -close_fd_mask=2 -print_final_stats=1 \
         -artifact_prefix="$scratch/artifacts/" >"$scratch/$name.log" 2>&1; then
      grep -E "^(Done|stat::number_of_executed_units)" "$scratch/$name.log" || true
    else
      status=1
      tail -n 60 "$scratch/$name.log"
      echo "FUZZ FAILURE in $name; inputs kept in $scratch/artifacts"
    fi
  done
  [ $status -eq 0 ] && rm -rf "$scratch"
  return $status
}

install_missing_packages
case "${1:-}" in
  demo)
    build build
    ./build/tools/imagery demo "${2:-demo-output}"
    ;;
  example)
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
    bench/tool_jobs.sh build-bench/tools/imagery
    ;;
  peers)
    packages=(libopencv-dev)
    install_missing_packages
    build build-bench -DIMAGERY_BUILD_BENCHMARKS=ON -DIMAGERY_BUILD_TESTS=OFF
    ./build-bench/bench/imagery_peer_table "${@:2}"
    ;;
  asan)
    build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGERY_SANITIZE_ADDRESS=ON -DIMAGERY_BUILD_EXAMPLES=OFF
    run_tests build-asan
    ;;
  tsan)
    build build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGERY_SANITIZE_THREAD=ON -DIMAGERY_BUILD_EXAMPLES=OFF
    run_tests build-tsan
    ;;
  fuzz)
    packages=(clang libclang-rt-dev)
    install_missing_packages
    CC=clang CXX=clang++ build build-fuzz -DIMAGERY_BUILD_FUZZERS=ON -DIMAGERY_BUILD_TESTS=OFF \
      -DIMAGERY_BUILD_EXAMPLES=OFF -DIMAGERY_BUILD_TOOLS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
    run_fuzzers "${2:-60}"
    ;;
  faults)
    # Edits the sources in place, one fault at a time, and puts every byte back; about ten minutes.
    packages=(python3)
    install_missing_packages
    build build
    python3 tests/faults/plant_faults.py "${@:2}"
    ;;
  *)
    echo "usage: $0 demo|example|test|bench|peers|asan|tsan|fuzz|faults" >&2
    exit 2
    ;;
esac
