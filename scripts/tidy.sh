#!/bin/bash
# Runs clang-tidy over every source file of the native build and prints what it found.
#
# usage: scripts/tidy.sh [JOBS]
set -euo pipefail
cd "$(dirname "$0")/.."

readonly jobs=${1:-$(nproc)}
readonly log=build/tidy/tidy.log

# Configured and never built: only the compile commands are wanted. Copies of driver sources that
# have a fault put in lie below build/ and are left out by the pattern.
cmake --preset tidy >/dev/null
status=0
run-clang-tidy-14 -p build/tidy -quiet -j "$jobs" \
    "^$PWD/(src|host|tools|samples|tests|bench)/" >"$log" 2>&1 || status=$?

if [ $status != 0 ]; then
    # Without the colours. A header is analysed with every file that includes it, and each finding
    # wants to be read once.
    sed -i 's/\x1b\[[0-9;]*m//g' "$log"
    grep -A 2 -E ': (warning|error): ' "$log" |
        awk '/: (warning|error): / { show = !seen[$0]++ } show'
    echo "clang-tidy found faults; all of its output is in $log" >&2
    exit 1
fi
