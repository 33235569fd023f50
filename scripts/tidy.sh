#!/bin/bash
# Runs clang-tidy over the source files of the native build and prints what it found.
#
# usage: scripts/tidy.sh [JOBS [SINCE]]
#
# With SINCE, a commit, over those that have changed since then or include a header that has. Where
# SINCE is not in the history, as in a clone without one, over all.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly jobs=${1:-$(nproc)} since=${2:-}
readonly log=build/tidy/tidy.log
readonly folders='src|host|tools|samples|tests|bench'

# Configured and never built: only the compile commands are wanted, one for each source. A source
# of several programs would be analysed once for each; copies of driver sources that have a fault put
# in lie below build/ and are left out by the pattern.
cmake --preset tidy >/dev/null
python3 - <<'PYTHON'
import json
path = "build/tidy/compile_commands.json"
commands = {}
for command in json.load(open(path)):
    commands.setdefault(command["file"], command)
json.dump(list(commands.values()), open(path, "w"), indent=1)
PYTHON

# Prints the sources that have changed, and for each header that has one source that includes it: a
# header is analysed with whatever includes it, the same each time.
changed() {
    local path
    git diff --name-only --diff-filter=d "$since" -- | grep -E "^($folders)/.*\.(h|c|cpp)$" |
        while read -r path; do
            case $path in
            *.h) grep -rlE "^#include \"(.*/)?${path##*/}\"" --include='*.c' --include='*.cpp' \
                $(tr '|' ' ' <<<"$folders") | sort | head -n 1 ;;
            *) echo "$path" ;;
            esac
        done | sort -u
}

pattern="^$PWD/($folders)/"
if [ -n "$since" ] && git rev-parse --quiet --verify "$since^{commit}" >/dev/null; then
    files=$(changed)
    [ -n "$files" ] || exit 0
    echo "clang-tidy: $(wc -l <<<"$files") files, changed since $since"
    pattern="^$PWD/($(sed 's/[.+]/\\&/g' <<<"$files" | paste -sd '|'))\$"
fi

status=0
run-clang-tidy-14 -p build/tidy -quiet -j "$jobs" "$pattern" >"$log" 2>&1 || status=$?

if [ $status != 0 ]; then
    # Without the colours. A header is analysed with every file that includes it, and each finding
    # wants to be read once.
    sed -i 's/\x1b\[[0-9;]*m//g' "$log"
    grep -A 2 -E ': (warning|error): |Program arguments|signal' "$log" |
        awk '/: (warning|error): |Program|signal/ { show = !seen[$0]++ } show' || tail -n 20 "$log"
    echo "clang-tidy found faults; all of its output is in $log" >&2
    exit 1
fi
