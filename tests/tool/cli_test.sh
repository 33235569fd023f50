#!/bin/bash
# The program as a user meets it: exit statuses, standard input and output, files that are not
# touched. The frames themselves are compared by compare-replay.sh.
#
# usage: cli_test.sh NETSIEVE SAMPLE MANUAL
netsieve=$1 sample=$2 manual=$3
. "${0%/*}/cli.sh"

head -c 5000 "$sample" >"$scratch/cut.pcap"
gzip -c "$sample" >"$scratch/sample.gz"
cp "$sample" "$scratch/itself.pcap"
echo "kept" >"$scratch/kept.pcap"

expect 0 "Usage: netsieve" --help
expect 0 "--direction" replay --help
expect 2 "subcommand is required"
expect 2 "CAPTURE is required" replay
expect 2 "not expected" replay "$sample" --bogus
expect 2 "is not a unicast address" replay "$sample" --mac 01:00:5e:00:00:01
expect 2 "not one of" replay "$sample" --direction up
expect 2 "'bogus' is no command" boot-filters bogus
expect 2 "no whole number" replay "$sample" --seed 18446744073709551616
expect 2 "is empty" boot-filters --hive "" list
expect 3 "No such file" replay "$scratch/missing.pcap"
expect 3 "is compressed" replay "$scratch/sample.gz" --json
expect 4 "truncated dump file" replay "$scratch/cut.pcap"
expect 6 "the capture itself" replay "$scratch/itself.pcap" -o "$scratch/../${scratch##*/}/itself.pcap"
cmp "$sample" "$scratch/itself.pcap" || fail "the capture was overwritten"
expect 6 "No space left" replay "$sample" -o /dev/full
expect 7 "did not start" replay "$sample" --driver "$scratch/cut.pcap" -o "$scratch/kept.pcap"
grep -qx kept "$scratch/kept.pcap" || fail "the output was overwritten although the driver failed"

expect 3 "No such file" image "$scratch/missing.sys"
expect 3 '"runnable": false' image "$sample" --json
expect 2 "FILE is required" image

expect 0 "00:00:5e:00:53:01 (found in" replay "$sample"
expect 0 "02:02:03:04:05:06 (as given)" replay "$sample" --mac 02-02-03-04-05-06
for direction in send receive; do
    "$netsieve" replay "$sample" --direction $direction --json |
        grep -A 2 "\"$([ $direction = send ] && echo received || echo sent)\"" |
        grep -q '"frames": 0' || fail "--direction $direction left frames for the other"
done
expect 0 '"exit_status": 0' replay "$sample" --json --no-verify -o "$scratch/plain.pcap"
cmp "$sample" "$scratch/plain.pcap" || fail "the output without the verifier differs"

# A pipe, with a second pass and without, and the frames on standard output.
for mac in auto 00:00:5e:00:53:01; do
    cat "$sample" | "$netsieve" replay - --mac $mac -o - 2>"$scratch/err" >"$scratch/out" ||
        fail "replay from a pipe with --mac $mac"
    cmp "$sample" "$scratch/out" || fail "standard output with --mac $mac differs"
    grep -q '^accounting' "$scratch/err" || fail "the summary is not on standard error"
    ! grep -q $'\r' "$scratch/err" || fail "a progress bar was drawn without a terminal"
done

# A reader that goes away.
"$netsieve" replay "$sample" -o - 2>"$scratch/err" | head -c 10 >/dev/null
[ "${PIPESTATUS[0]}" = 6 ] || fail "a reader that went away was not reported"

# What is to be read on standard output gets there, or the status says that it did not.
for arguments in "replay $sample" "replay $sample --hook log" "version" "--help" \
    "boot-filters --hive $scratch/hive --create add a"; do
    # The arguments are words.
    # shellcheck disable=SC2086
    "$netsieve" $arguments 2>"$scratch/err" >/dev/full
    [ $? = 6 ] || fail "$arguments on a full device"
done
[ ! -e "$scratch/hive" ] || fail "a hive was made although nobody could read it"

# The manual and the help say the same about the exit statuses.
"$netsieve" --help | sed -n 's/^  \([0-9][0-9]*\) \+/\1 /p' >"$scratch/out"
sed -n '/^\.SH EXIT STATUS/,/^\.SH ENV/p' "$manual" |
    awk '/^\.B [0-9]+$/ { number = $2; getline; print number, $0 }' >"$scratch/err"
[ "$(wc -l <"$scratch/out")" = 11 ] && cmp -s "$scratch/out" "$scratch/err" ||
    fail "the manual and the help differ about the exit statuses"

exit $failed
