#!/usr/bin/env bash
# Builds and tests every configuration (native, aarch64 under qemu, ASan+UBSan,
# TSan, the fuzz targets), checks the format, and closes with one line that
# sums them: "N passed, M failed".
set -uo pipefail
cd "$(dirname "$0")/../.."
jobs=${JOBS:-2}
presets=${PRESETS:-native aarch64 asan tsan fuzz}
passed=0
failed=0
status=0
for preset in $presets; do
  echo "=== $preset: configure and build"
  start=$(date +%s)
  if ! cmake --preset "$preset" >"build-$preset.log" 2>&1 || ! cmake --build --preset "$preset" -j "$jobs" >>"build-$preset.log" 2>&1; then
    tail -50 "build-$preset.log"
    echo "=== $preset: build FAILED"
    failed=$((failed + 1))
    status=1
    continue
  fi
  echo "=== $preset: test$( [ "$preset" = aarch64 ] && echo " (under qemu-aarch64)")"
  out=$(ctest --preset "$preset" -j "$jobs" 2>&1)
  code=$?
  echo "$out" | grep -E "tests passed|\*\*\*|Not Run|\(Failed\)|\(Timeout\)" | head -60
  summary=$(echo "$out" | grep -E "[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+" | tail -1)
  if [ -n "$summary" ]; then
    total=$(echo "$summary" | sed -E 's/.* out of ([0-9]+).*/\1/')
    bad=$(echo "$summary" | sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/')
    passed=$((passed + total - bad))
    failed=$((failed + bad))
  else
    echo "$out" | tail -30
    failed=$((failed + 1))
  fi
  [ $code -ne 0 ] && status=1
  echo "=== $preset: done in $(( $(date +%s) - start )) s"
done
echo "=== format: every tracked C++ file as clang-format-14 writes it"
if clang-format-14 --dry-run -Werror $(git ls-files '*.cpp' '*.h') 2>format.log; then
  passed=$((passed + 1))
else
  head -40 format.log
  echo "=== format: FAILED (make format rewrites the files)"
  failed=$((failed + 1))
  status=1
fi
rm -f build-*.log format.log 2>/dev/null
echo "$passed passed, $failed failed"
exit $status
