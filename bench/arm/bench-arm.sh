#!/usr/bin/env bash
# `make bench-arm`: counts, under qemu-aarch64, the instructions (and the loads
# and stores) that each conversion executes per pixel, beside libyuv's NEON
# code and memcpy, with a counting plug-in built against the plug-in header of
# Debian's qemu. Everything comes from Debian packages and source packages:
#   1. the packages of cmake/debian-packages-bench-arm.txt (installed as root);
#   2. the qemu and libyuv source packages (bench/arm/fetch-sources.sh);
#   3. the plug-in, libyuv for aarch64 (static, with its NEON rows) and the
#      harness against the library's `aarch64` preset;
#   4. the plug-in checked on a loop whose count is known, then the table.
# Each row is (count of K runs - count of one run) / (K - 1) / pixels, so
# start-up and exit cancel. Output: build/arm/bench-arm.txt.
set -euo pipefail
cd "$(dirname "$0")/../.."
root="$PWD"
work="$root/build/arm"
jobs="${JOBS:-2}"
mkdir -p "$work"

cmake/scripts/install-packages.sh cmake/debian-packages-bench-arm.txt
bench/arm/fetch-sources.sh "$work/src"

plugin="$work/libinsn_count.so"
gcc -O2 -Wall -Wextra -shared -fPIC -I"$work/src" $(pkg-config --cflags glib-2.0) bench/arm/insn_count.c -o "$plugin"

cmake -S "$work/src/libyuv" -B "$work/libyuv" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake" >"$work/libyuv-configure.log" 2>&1 ||
  { cat "$work/libyuv-configure.log" >&2; exit 1; }
cmake --build "$work/libyuv" -j "$jobs" --target yuv >/dev/null

cmake --preset aarch64 -DQRV_IPM_BUILD_BENCH_ARM=ON -DQRV_LIBYUV_INCLUDE_DIR="$work/src/libyuv/include" \
  -DQRV_LIBYUV_LIBRARY="$work/libyuv/libyuv.a" >/dev/null
cmake --build --preset aarch64 -j "$jobs" --target count_harness >/dev/null
harness="$root/build/aarch64/bench/arm/count_harness"

# count CPU CASE WIDTH HEIGHT RUNS: prints "instructions loads stores" of one process.
# The library's warnings (no User_Custom plug-in beside the harness) go to a log.
count() {
  local out="$work/count.txt"
  QEMU_CPU="$1" qemu-aarch64 -L /usr/aarch64-linux-gnu -plugin "$plugin,out=$out" "$harness" "$2" "$3" "$4" "$5" \
    2>"$work/harness-stderr.log" || { cat "$work/harness-stderr.log" >&2; return 1; }
  awk '{print $2, $4, $6}' "$out"
}

# per CPU CASE WIDTH HEIGHT K DIVISOR: (K runs - one run) / (K - 1) / DIVISOR, three numbers.
per() {
  local many one
  many=$(count "$1" "$2" "$3" "$4" "$5") && one=$(count "$1" "$2" "$3" "$4" 1) || exit 1
  echo "$many $one" | awk -v k="$5" -v d="$6" '{printf "%.3f %.3f %.3f", ($1-$4)/(k-1)/d, ($2-$5)/(k-1)/d, ($3-$6)/(k-1)/d}'
}

report="$work/bench-arm.txt"
declare -A target_rows # instructions per pixel at 1920x1080 under cortex-a72, for the Arm targets
{
  echo "qemu: $(qemu-aarch64 --version | head -n 1)"
  echo "compiler: $(aarch64-linux-gnu-g++ --version | head -n 1)"
  echo "sources: $(cat "$work/src/qemu-version.txt") (plug-in header), $(cat "$work/src/libyuv-version.txt")"

  # The plug-in against a loop of 4 instructions (1 load, 1 store) run N times per run.
  n=100000
  read -r i l s <<<"$(per cortex-a72 loop $n 1 5 $n)"
  echo "plug-in check: loop of 4 instructions (1 load, 1 store): counted $i instructions, $l loads, $s stores per iteration"
  [ "$i $l $s" = "4.000 1.000 1.000" ] || { echo "error: the plug-in miscounts" >&2; exit 1; }

  QEMU_CPU=cortex-a72 qemu-aarch64 -L /usr/aarch64-linux-gnu "$harness" order

  for cpu in cortex-a72 max; do
    for size in 1920x1080 640x480; do
      w=${size%x*} h=${size#*x}
      echo
      echo "QEMU_CPU=$cpu $size               instructions/px  loads/px  stores/px"
      for case in kernel_yuyv_to_rgb parallel_yuyv_to_rgb serial_yuyv_to_rgb libyuv_yuyv_to_rgb memcpy_yuyv_to_rgb \
        kernel_rgb_to_gray parallel_rgb_to_gray serial_rgb_to_gray libyuv_rgb_to_gray memcpy_rgb_to_gray; do
        read -r i l s <<<"$(per $cpu $case "$w" "$h" 3 $((w * h)))"
        [ -n "$s" ] || exit 1
        printf "%-32s %14s %9s %10s\n" "$case" "$i" "$l" "$s"
        [ "$cpu $size" = "cortex-a72 1920x1080" ] && target_rows[$case]=$i
      done
    done
    # One call through the table beyond the kernel: at 64x64, per call.
    echo
    echo "QEMU_CPU=$cpu 64x64: instructions of one call through CIpmFuncTable::process beyond the kernel"
    for conversion in yuyv_to_rgb rgb_to_gray; do
      read -r table _ _ <<<"$(per $cpu parallel_$conversion 64 64 21 1)"
      read -r kernel _ _ <<<"$(per $cpu kernel_$conversion 64 64 21 1)"
      [ -n "$table" ] && [ -n "$kernel" ] || exit 1
      echo "$conversion: through the table $table, kernel alone $kernel, beyond the kernel" \
        "$(awk -v t="$table" -v k="$kernel" 'BEGIN {printf "%.0f", t - k}')"
    done
  done

  echo
  echo "Arm targets (1920x1080, cortex-a72, instructions per pixel against libyuv's):"
  awk -v a="${target_rows[kernel_yuyv_to_rgb]}" -v b="${target_rows[libyuv_yuyv_to_rgb]}" -v c="${target_rows[kernel_rgb_to_gray]}" \
    -v d="${target_rows[libyuv_rgb_to_gray]}" 'BEGIN {
      printf "YUYV to RGB888: %.3f times YUY2ToARGB + ARGBToRAW (target at most 0.65): %s\n", a / b, a / b <= 0.65 ? "met" : "not met"
      printf "RGB888 to Gray8: %.3f times RAWToJ400 (target at most 0.85): %s\n", c / d, c / d <= 0.85 ? "met" : "not met"
    }'
} | tee "$report"
echo "results: $report"
