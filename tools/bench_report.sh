#!/bin/sh
# Runs the micro-benchmarks (bench/) and prints one table: for every pair of
# our operation and a reference, the median time of each over the
# repetitions, their ratio and the ratio's goal. Both times of a pair come
# from the same run, with the repetitions of all benchmarks interleaved at
# random, so a machine that slows down for a while slows down both sides.
# Optionally it also times whole runs of the conformance executable.
#
# It also writes the report of the run: OUT_DIR/performance.md (machine,
# command, table) and OUT_DIR/performance.svg, a chart of every ratio that
# has a goal against that goal, drawn by gnuplot. A run of the conformance
# executable alone (-r 0) only prints.
#
# Usage: tools/bench_report.sh [-b BUILD_DIR] [-r REPETITIONS]
#                              [-t MIN_TIME] [-f FILTER] [-c CONFORMANCE_RUNS]
#                              [-e EMULATOR] [-o OUT_DIR]
#   -b  build tree holding bin/vek_bench (default build/host)
#   -r  repetitions per benchmark, of which the median counts (default 9);
#       0 runs no benchmark, for timing the conformance run alone
#   -t  minimum time of one repetition in seconds (default 0.2)
#   -f  regular expression selecting benchmarks (default: all)
#   -c  also time that many runs of bin/vek_ut_osal_common and print the
#       median wall time against its goal (default 0: don't)
#   -e  run the conformance executable through this command, for a build
#       of another architecture (for example "qemu-aarch64 -L
#       /usr/aarch64-linux-gnu"); the goal is then 10 s instead of 1 s
#   -o  folder of the report (default: docs/ of this project)
#
# Needs a POSIX shell, awk and the coreutils of a fresh Debian, and gnuplot
# for the chart (Debian package gnuplot-nox).
set -eu

# The command as given, for the report.
command="tools/bench_report.sh"
for arg in "$@"; do
  case $arg in
    *[!A-Za-z0-9_./=:,+-]*) command="$command '$arg'" ;;
    *) command="$command $arg" ;;
  esac
done

root=$(cd "$(dirname "$0")/.." && pwd)
build=build/host
reps=9
min_time=0.2
filter=
conformance_runs=0
emulator=
out=$root/docs
while getopts b:r:t:f:c:e:o:h opt; do
  case $opt in
    b) build=$OPTARG ;;
    r) reps=$OPTARG ;;
    t) min_time=$OPTARG ;;
    f) filter=$OPTARG ;;
    c) conformance_runs=$OPTARG ;;
    e) emulator=$OPTARG ;;
    o) out=$OPTARG ;;
    *) sed -n '2,29p' "$0" | sed 's/^# \{0,1\}//'; exit 2 ;;
  esac
done

if [ "$reps" -eq 1 ]; then
  echo "bench_report.sh: -r 1 gives no median; use 2 or more (or 0)" >&2
  exit 2
fi
if [ "$reps" -gt 0 ] && ! command -v gnuplot >/dev/null 2>&1; then
  echo "bench_report.sh: gnuplot not found; it draws $out/performance.svg." \
    "Install the Debian package gnuplot-nox (./vek.sh deps host does)." >&2
  exit 1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT INT TERM

load() { cut -d' ' -f1-3 /proc/loadavg 2>/dev/null || echo unknown; }

model=$(lscpu 2>/dev/null | awk -F: '/^Model name/ { sub(/^[ \t]+/, "", $2); print $2; exit }')
machine="${model:-unknown CPU}, $(nproc) cores; $(uname -sr)"
date=$(date -u '+%Y-%m-%d %H:%M UTC')
echo "Machine: $machine"
echo "Date:    $date"
load_before=$(load)

if [ "$reps" -gt 0 ]; then
  bench=$build/bin/vek_bench
  if [ ! -x "$bench" ]; then
    echo "bench_report.sh: $bench not found; build it first" \
      "(cmake --build --preset host)" >&2
    exit 1
  fi

  csv=$tmp/bench.csv
  run="$reps repetitions x ${min_time}s, random interleaving, median"
  echo "Run:     $run"

  set -- --benchmark_repetitions="$reps" \
    --benchmark_report_aggregates_only=true \
    --benchmark_enable_random_interleaving=true \
    --benchmark_min_time="$min_time" \
    --benchmark_format=csv
  [ -n "$filter" ] && set -- "$@" --benchmark_filter="$filter"
  "$bench" "$@" >"$csv" 2>/dev/null
  # The table follows the order in which the benchmarks are registered; the
  # run order is random.
  order=$("$bench" --benchmark_list_tests=true ${filter:+--benchmark_filter="$filter"} |
    cut -d/ -f1-2 | tr '\n' ' ')

  load_line="$load_before before, $(load) after (1, 5, 15 min averages)"
  echo "Load:    $load_line"
  echo

  # Rows are "<operation>/<implementation>[/real_time]_<aggregate>"; "vek" is
  # ours. Threaded and blocking rows are timed in wall-clock time (they say
  # real_time), the others in CPU time, which preemption by other processes
  # does not inflate. A reference's label "goal=R" is the largest ratio
  # ours/reference that meets the goal; our row's label "max_ns=N" an
  # absolute bound on our time.
  # Besides the table, one line per ratio with a goal for the chart:
  # "<operation> vs <reference>", ratio, goal, 1 if met.
  awk -F, -v order="$order" -v chart="$tmp/chart.tsv" '
  function ns(value, unit) {
    if (unit == "us") return value * 1e3
    if (unit == "ms") return value * 1e6
    if (unit == "s") return value * 1e9
    return value
  }
  function fmt(t) {
    if (t >= 1e6) return sprintf("%.2f ms", t / 1e6)
    if (t >= 1e4) return sprintf("%.1f us", t / 1e3)
    if (t >= 100) return sprintf("%.0f ns", t)
    if (t >= 10) return sprintf("%.1f ns", t)
    return sprintf("%.2f ns", t)
  }
  function fmt_allocs(a) {
    if (a == "") return "-"
    return sprintf("%.3g", a)
  }
  { gsub(/"/, "") }
  NR == 1 {
    for (i = 1; i <= NF; i++) col[$i] = i
    next
  }
  $1 !~ /_median$/ { next }
  {
    name = $1
    sub(/_median$/, "", name)
    n = split(name, part, "/")
    op = part[1]
    impl = part[2]
    wall = (name ~ /\/real_time$/)
    t = ns(wall ? $col["real_time"] : $col["cpu_time"], $col["time_unit"])
    if (!(op in seen)) { seen[op] = 1; ops[++nops] = op }
    if (impl == "vek") {
      ours[op] = t
      ours_label[op] = $col["label"]
      if ("allocs" in col) ours_allocs[op] = $col["allocs"]
    } else {
      k = ++nrefs[op]
      ref_impl[op, k] = impl
      ref_time[op, k] = t
      ref_label[op, k] = $col["label"]
      if ("allocs" in col) ref_allocs[op, k] = $col["allocs"]
      rank[op, k] = 1e9
    }
    if (wall) clock[op] = "wall"
    else if (!(op in clock)) clock[op] = "cpu"
  }
  END {
    # Registration order: of the operations, and of the references within
    # each; anything the listing missed goes last.
    n = split(order, listed, " ")
    nsorted = 0
    for (i = 1; i <= n; i++) {
      split(listed[i], part, "/")
      if ((part[1] in seen) && !(part[1] in placed)) {
        sorted[++nsorted] = part[1]; placed[part[1]] = 1
      }
      for (k = 1; k <= nrefs[part[1]]; k++)
        if (ref_impl[part[1], k] == part[2]) rank[part[1], k] = i
    }
    for (i = 1; i <= nops; i++)
      if (!(ops[i] in placed)) sorted[++nsorted] = ops[i]
    for (i = 1; i <= nops; i++) {
      op = ops[i]
      for (a = 2; a <= nrefs[op]; a++)
        for (b = a; b > 1 && rank[op, b] < rank[op, b - 1]; b--) {
          tmp = ref_impl[op, b]; ref_impl[op, b] = ref_impl[op, b - 1]; ref_impl[op, b - 1] = tmp
          tmp = ref_time[op, b]; ref_time[op, b] = ref_time[op, b - 1]; ref_time[op, b - 1] = tmp
          tmp = ref_label[op, b]; ref_label[op, b] = ref_label[op, b - 1]; ref_label[op, b - 1] = tmp
          tmp = ref_allocs[op, b]; ref_allocs[op, b] = ref_allocs[op, b - 1]; ref_allocs[op, b - 1] = tmp
          tmp = rank[op, b]; rank[op, b] = rank[op, b - 1]; rank[op, b - 1] = tmp
        }
    }
    printf "%-40s %-10s %-26s %-10s %6s  %-7s %-6s %s\n", \
      "operation (clock)", "ours", "reference", "theirs", "ratio", "goal", \
      "", "allocs/op ours, theirs"
    met = 0; missed = 0
    for (i = 1; i <= nsorted; i++) {
      op = sorted[i]
      if (!(op in ours)) continue
      label = op " (" clock[op] ")"
      if (nrefs[op] == 0) {
        printf "%-40s %-10s\n", label, fmt(ours[op])
      }
      for (k = 1; k <= nrefs[op]; k++) {
        ratio = ours[op] / ref_time[op, k]
        goal = ""; verdict = ""
        if (ref_label[op, k] ~ /^goal=/) {
          goal = substr(ref_label[op, k], 6)
          if (ratio <= goal + 0) { verdict = "met"; met++ }
          else { verdict = "MISSED"; missed++ }
          printf "%s vs %s\t%.4f\t%s\t%d\n", op, ref_impl[op, k], ratio, \
            goal, verdict == "met" > chart
          goal = "<=" goal
        }
        allocs = ""
        if ((op in ours_allocs) && ours_allocs[op] != "")
          allocs = fmt_allocs(ours_allocs[op]) ", " fmt_allocs(ref_allocs[op, k])
        printf "%-40s %-10s %-26s %-10s %6.2f  %-7s %-6s %s\n", \
          (k == 1 ? label : ""), (k == 1 ? fmt(ours[op]) : ""), \
          ref_impl[op, k], fmt(ref_time[op, k]), ratio, goal, verdict, allocs
      }
      if (ours_label[op] ~ /^max_ns=/) {
        bound = substr(ours_label[op], 8)
        verdict = ours[op] <= bound + 0 ? "met" : "MISSED"
        if (verdict == "met") met++; else missed++
        printf "%-40s %-10s %-26s %-10s %6s  %-7s %s\n", "", "", \
          "(absolute bound)", "", "", "<=" bound "ns", verdict
      }
    }
    printf "\nGoals: %d met, %d missed\n", met, missed
  }' "$csv" | tee "$tmp/table.txt"
fi

if [ "$conformance_runs" -gt 0 ]; then
  exe=$build/bin/vek_ut_osal_common
  if [ ! -x "$exe" ]; then
    echo "bench_report.sh: $exe not found" >&2
    exit 1
  fi
  case $(date +%N) in
    *N*) echo "bench_report.sh: date cannot print nanoseconds here" >&2; exit 1 ;;
  esac
  times=
  i=0
  status=0
  while [ "$i" -lt "$conformance_runs" ]; do
    start=$(date +%s%N)
    # shellcheck disable=SC2086 # the emulator is a command with arguments
    $emulator "$exe" >/dev/null 2>&1 || status=$?
    end=$(date +%s%N)
    times="$times $(( (end - start) / 1000 ))"
    i=$((i + 1))
  done
  echo
  goal_ms=1000
  how="natively"
  if [ -n "$emulator" ]; then
    goal_ms=10000
    how="under ${emulator%% *}"
  fi
  echo "$times" | tr ' ' '\n' | sed '/^$/d' | sort -n |
    awk -v status="$status" -v goal="$goal_ms" -v how="$how" '
    { t[NR] = $1 }
    END {
      m = (NR % 2) ? t[(NR + 1) / 2] : (t[NR / 2] + t[NR / 2 + 1]) / 2
      printf "Conformance run (%s, %s): median %.0f ms of %d runs (min %.0f, max %.0f); goal < %d s %s%s\n", \
        "vek_ut_osal_common", how, m / 1000, NR, t[1] / 1000, t[NR] / 1000, \
        goal / 1000, m / 1000 < goal ? "met" : "MISSED", \
        status == 0 ? "" : ", SOME RUNS FAILED (exit " status ")"
    }' | tee "$tmp/conformance.txt"
fi

[ "$reps" -gt 0 ] || exit 0

# The chart: a bar per ratio, a tick at its goal, green where the goal is
# met and red where it is missed; the dotted line is parity.
mkdir -p "$out"
chart_rows=0
[ -s "$tmp/chart.tsv" ] && chart_rows=$(wc -l <"$tmp/chart.tsv")
if [ "$chart_rows" -gt 0 ]; then
  xmax=$(awk -F'\t' '{ m = ($2 > m) ? $2 : m; m = ($3 > m) ? $3 : m }
    END { printf "%.2f", m * 1.15 }' "$tmp/chart.tsv")
  gnuplot <<GNUPLOT
set terminal svg size 900,$((80 + 24 * chart_rows)) noenhanced font "sans,11" background "white"
set output "$out/performance.svg"
set datafile separator "\t"
set title "Ratio ours / reference (bar) and its goal (tick)"
set xlabel "ratio; lower is faster"
set xrange [0:$xmax]
set yrange [$chart_rows - 0.5:-0.5]
set ytics nomirror
set grid xtics
set key off
set style fill solid 0.85 noborder
set arrow from 1, graph 0 to 1, graph 1 nohead dashtype 3 lc rgb "gray40"
plot "$tmp/chart.tsv" using (\$2/2):0:(\$2/2):(0.35):(\$4 > 0 ? 0x2e8b57 : 0xcd3333):ytic(1) with boxxyerror lc rgb variable, \\
  "" using 3:(\$0 - 0.45):(0):(0.9) with vectors nohead lw 2 lc rgb "black", \\
  "" using (\$2 > \$3 ? \$2 : \$3):0:(sprintf(" %.2f", \$2)) with labels left
GNUPLOT
  chart="![Each ratio with a goal: the bar ends at the ratio, the tick marks the goal; green met, red missed](performance.svg)"
else
  rm -f "$out/performance.svg"
  chart="(No benchmark of this run has a goal, so there is no chart.)"
fi

sources=unknown
if commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null); then
  sources="commit $commit"
  [ -z "$(git -C "$root" status --porcelain --untracked-files=no)" ] ||
    sources="$sources with local changes"
fi
{
  echo "# Performance"
  echo
  echo "<!-- Generated by tools/bench_report.sh; run it again rather than"
  echo "     editing this file. -->"
  echo
  echo "Made with \`$command\` from $sources."
  echo
  echo "- Machine: $machine"
  echo "- Date: $date"
  echo "- Run: $run"
  echo "- Load: $load_line"
  echo
  echo "Ratio = our time / the reference's time; a goal is the largest ratio"
  echo "that meets it. Blocking rows are timed in wall-clock time, the others"
  echo "in CPU time."
  echo
  echo "$chart"
  echo
  echo '```'
  cat "$tmp/table.txt"
  if [ -s "$tmp/conformance.txt" ]; then
    cat "$tmp/conformance.txt"
  fi
  echo '```'
} >"$out/performance.md"
echo
if [ "$chart_rows" -gt 0 ]; then
  echo "Report: $out/performance.md, $out/performance.svg"
else
  echo "Report: $out/performance.md"
fi
