# For the tests of the command to source, with the program's path in `netsieve`: a scratch directory,
# and what says that something is not as it should be.
set -uo pipefail

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
file_limit=unlimited # KiB; stands for a full disk
failed=0

fail() { # WORDS...
    echo "FAILED: $*"
    cat "$scratch/out" "$scratch/err"
    failed=1
}

# Runs the program and checks its status and a piece of what it said.
expect() { # STATUS WORDS ARGUMENT...
    local status=$1 words=$2
    shift 2
    (
        ulimit -S -f "$file_limit"
        exec "$netsieve" "$@"
    ) >"$scratch/out" 2>"$scratch/err"
    local got=$?
    [ $got = "$status" ] || fail "netsieve $* ended with $got, expected $status"
    cat "$scratch/out" "$scratch/err" | grep -qF -e "$words" ||
        fail "netsieve $* did not say '$words'"
}

# A replay of `capture` that is refused before anything is written.
refuse_replay() { # STATUS WORDS OPTION...
    rm -f "$scratch/none"
    expect "$1" "$2" replay "$capture" -o "$scratch/none" "${@:3}"
    [ ! -e "$scratch/none" ] || fail "'${*:3}' left an output"
}
