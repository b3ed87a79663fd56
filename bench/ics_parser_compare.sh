#!/usr/bin/env bash
# Builds the benchmarks and runs the iCalendar parser comparison: ICalParser.parse against libical's
# icalparser_parse_string on the same inputs in the same run. Prints each side's throughput and
# how many times faster our reader is. Extra arguments go to the benchmark program, e.g.
#   bench/ics_parser_compare.sh --benchmark_repetitions=5
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --workflow --preset bench > /dev/null
build/bench/bin/IcsParserBenchmark --benchmark_min_time=2 --benchmark_format=csv "$@" 2>/dev/null |
    awk -F, '
        /^"(Corpus|LargestFile)\/(morvane|libical)/ {
            gsub(/"/, "", $1)
            split($1, name, "/")
            sub(/_(mean|median|stddev|cv)$/, "", name[2])
            if ($1 ~ /_(stddev|cv)$/) next
            rate[name[1] "/" name[2]] = $6 / 1e6
        }
        END {
            split("Corpus LargestFile", inputs, " ")
            for (i = 1; i <= 2; i++) {
                ours = rate[inputs[i] "/morvane"]; theirs = rate[inputs[i] "/libical"]
                if (theirs == 0) { print inputs[i] ": no figures (is the shared corpus there?)"; continue }
                printf "%-12s morvane %8.1f MB/s   libical %8.1f MB/s   ratio %.2fx\n", inputs[i], ours, theirs, ours / theirs
            }
        }'
