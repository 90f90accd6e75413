# Sourced by ./test and the tools that build for it.
. tools/packages.sh

# How long a test may take.
TEST_SECONDS=120

# build PRESET [ARGUMENT...]: configures and builds; says what the tools say only when they fail.
build() {
  mkdir -p build
  { cmake --preset "$1" -DBUILD_TESTING=ON -DORSM_TEST_SECONDS=$TEST_SECONDS && cmake --build --preset "$@"; } >"build/$1.log" 2>&1 ||
    { cat "build/$1.log"; exit 1; }
}

# gateway_package PRESET [CPACK ARGUMENT...]: makes a gateway's package as a porter does, in build/PRESET-gateway. The
# stand-in plays the platform's library, build/PRESET/platform/libpcb.so.0.
gateway_package() {
  local folder=build/$1-gateway
  { cmake --build --preset "$1" --target pcb_shared &&
    cmake --preset "$1" -B "$folder" -DBUILD_TESTING=OFF -DORSM_PCB_LIBRARIES=pcb -DORSM_PCB_INCLUDE=platform/pcb \
      -DORSM_PCB_LIBRARY_FOLDERS="$PWD/build/$1/platform" &&
    cmake --build "$folder" &&
    cpack --config "$folder/CPackConfig.cmake" "${@:2}"; } >"$folder.log" 2>&1 ||
    { cat "$folder.log"; exit 1; }
}

# run_tests FOLDER CTEST_ARGUMENT...: ends with ctest's status, after the figures that the tests have printed; with 77
# when no test failed and one was skipped.
run_tests() {
  local status=0 log=$1/Testing/Temporary/LastTest.log skipped
  ctest --test-dir "$@" | tee "$1/ctest.log" || status=$?
  [ ! -f "$log" ] || printf '\nFigures:\n%s\n' "$(sed -n 's/^figure: /  /p' "$log" | sort -u)"
  skipped=$(sed -n 's/.* - \(.*\) (Skipped)$/\1/p' "$1/ctest.log" | tr '\n' ' ')
  [ $status -ne 0 ] || [ -z "$skipped" ] || { echo "skipped: $skipped"; status=77; }
  exit $status
}

# run_every_test CTEST_ARGUMENT...: one list of tests over all builds: everything under the address and
# undefined-behaviour sanitizers, what has two threads under the thread sanitizer too, and what looks at the shipped
# program with the release.
run_every_test() {
  local preset
  install_missing "${TEST_PACKAGES[@]}" binutils systemd mandoc shellcheck
  need_world
  mkdir -p build/all
  printf 'subdirs("%s")\n' "$PWD"/build/{asan,tsan,release} >build/all/CTestTestfile.cmake
  for preset in asan tsan release; do
    build $preset
  done
  run_tests build/all --output-on-failure -j "$(($(nproc) * 2))" "$@"
}
