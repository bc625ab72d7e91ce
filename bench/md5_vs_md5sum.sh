#!/bin/sh
# Builds md5_bench in Release, then sets its MD5 throughput (range form)
# beside md5sum's on the same 64 MiB file.
#
#   bench/md5_vs_md5sum.sh [BUILD_FOLDER]   (default: <project>/build-bench-release)
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$root/build-bench-release"}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DPORVANE_TESTS=OFF >/dev/null
cmake --build "$build" --target md5_bench -j2 >/dev/null

input="$work/input.bin"
head -c 67108864 /dev/urandom >"$input"
cat "$input" >/dev/null  # both runs read it from the page cache

"$build/bin/md5_bench" --input="$input" --benchmark_format=json >"$work/bench.json" 2>"$work/bench.err"
bench_digest=$(sed -n 's/^md5 //p' "$work/bench.err")
bench_mbs=$(sed -n 's/.*"MB": \([0-9.e+]*\).*/\1/p' "$work/bench.json" | head -n 1)

start=$(date +%s.%N)
sum_digest=$(md5sum "$input" | cut -d' ' -f1)
end=$(date +%s.%N)
sum_mbs=$(echo "$start $end" | awk '{ printf "%.1f", 67.108864 / ($2 - $1) }')

if [ "$bench_digest" != "$sum_digest" ]; then
  echo "digests differ: md5_bench $bench_digest, md5sum $sum_digest" >&2
  exit 1
fi
printf 'md5_bench (range form): %.1f MB/s\n' "$bench_mbs"
printf 'md5sum:                 %s MB/s\n' "$sum_mbs"
