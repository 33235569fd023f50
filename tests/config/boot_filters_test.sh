#!/bin/bash
# The list in a hive file as a user meets it: what the command says, what others read in the hive,
# and that a file that cannot be changed stays as it is.
#
# usage: boot_filters_test.sh NETSIEVE IMAGE
netsieve=$1 image=$2
. "${0%/*}/../tool/cli.sh"
hive=$scratch/SYSTEM

# What `expect` does, and the hive must not be touched.
refuse() { # STATUS WORDS ARGUMENT...
    cp -p "$hive" "$scratch/before"
    expect "$@"
    cmp "$hive" "$scratch/before" || fail "the hive was changed"
    [ "$(ls "$scratch" | grep -c SYSTEM)" = 1 ] || fail "something was left beside the hive"
}

# What the two readers find under the service key: the list as hexadecimal bytes, and the flag.
read_back() { # LIST-BYTES FLAG
    hivexregedit --export "$hive" '\ControlSet001\Services\NetSieve' >"$scratch/out" 2>"$scratch/err"
    grep -qxF "\"BtFltNames\"=hex(7):$1" "$scratch/out" || fail "hivexregedit reads another list"
    grep -qxF "\"BtFlag\"=dword:$2" "$scratch/out" || fail "hivexregedit reads another flag"
    reglookup -p /ControlSet001/Services/NetSieve/BtFlag "$hive" | grep -qiF "DWORD,0x$2" ||
        fail "reglookup reads another flag"
}

[ "$("$netsieve" version)" = 4,9,0,1 ] || fail "the native driver tells another version"
[ "$("$netsieve" version --driver "$image")" = 4,9,0,1 ] || fail "the image tells another version"

expect 3 "--create makes a new hive" boot-filters --hive "$hive" add alpha
[ ! -e "$hive" ] || fail "a hive was made unasked"
expect 0 "1 name in 14 bytes" boot-filters --create --hive "$hive" add alpha
expect 0 "2 names in 24 bytes" boot-filters --driver "$image" --hive "$hive" add beta
expect 0 "Łódź" boot-filters --hive "$hive" add Łódź
read_back "61,00,6c,00,70,00,68,00,61,00,00,00,62,00,65,00,74,00,61,00,00,00,41,01,f3,00,64,00,7a,01,00,00,00,00" 2f719e1f
expect 0 "after: 2 names in 24 bytes" boot-filters --hive "$hive" remove Łódź
expect 0 "now: 2 names in 24 bytes" boot-filters --hive "$hive" list
read_back "61,00,6c,00,70,00,68,00,61,00,00,00,62,00,65,00,74,00,61,00,00,00,00,00" 2f719e1f
reglookup -p /ControlSet001/Services/NetSieve/BtFltNames "$hive" | grep -qF "MULTI_SZ,alpha|beta" ||
    fail "reglookup reads another list"

# What others put beside the list lives through a change of ours.
hivexregedit --merge "$hive" <<'REG'
Windows Registry Editor Version 5.00

[\ControlSet001\Services\NetSieve\Parameters]
"Other"="kept"

[\ControlSet001\Services\NetSieve]
"ImagePath"=hex(2):61,00,00,00
REG
expect 0 "after: 1 name in" boot-filters --driver "$image" --hive "$hive" remove alpha
expect 0 "after: no list, flag 0x63243B22" boot-filters --hive "$hive" remove beta
reglookup -p /ControlSet001/Services "$hive" | grep -v ,KEY, >"$scratch/out"
diff - "$scratch/out" <<'EOD' || fail "reglookup reads something else"
PATH,TYPE,VALUE,MTIME
/ControlSet001/Services/NetSieve/BtFlag,DWORD,0x63243B22,
/ControlSet001/Services/NetSieve/ImagePath,EXPAND_SZ,a,
/ControlSet001/Services/NetSieve/Parameters/Other,SZ,kept,
EOD

refuse 2 "A subcommand is required" boot-filters --hive "$hive"
refuse 2 "NAME is required" boot-filters --hive "$hive" add
refuse 2 "is not UTF-8" boot-filters --hive "$hive" add $'\xff'
refuse 0 "no list" boot-filters --hive "$hive" remove alpha
refuse 5 "cannot be empty" boot-filters --hive "$hive" add ""
refuse 5 "the name does not fit" boot-filters --hive "$hive" add "$(printf '%0519d' 0)"
refuse 7 "cannot be used" boot-filters --hive "$hive" --driver "$scratch/nowhere.sys" add alpha
refuse 7 "does not begin with" boot-filters --hive "$hive" --driver "$hive" add alpha

expect 0 "1 name in 1040 bytes" boot-filters --hive "$hive" add "$(printf '%0518d' 0)"
refuse 5 "longer than the 520 bytes" boot-filters --hive "$hive" add alpha
refuse 0 "more than the 520 that the driver reads" boot-filters --hive "$hive" list

merge() { # REGISTRY-TEXT
    printf 'Windows Registry Editor Version 5.00\n\n%s\n' "$1" | hivexregedit --merge "$hive"
}
readonly service='\ControlSet001\Services\NetSieve'

merge "[$service]
\"BtFltNames\"=-"
file_limit=4
refuse 6 "File too large" boot-filters --hive "$hive" add alpha
file_limit=unlimited

chmod 444 "$hive"
refuse 6 "is read-only" boot-filters --hive "$hive" add alpha
refuse 0 "no list" boot-filters --hive "$hive" list
chmod 644 "$hive"

byte() { # OFFSET [VALUE]
    if [ $# = 1 ]; then
        od -An -tu1 -j "$1" -N 1 "$hive"
    else
        printf "\\x$(printf %02x "$2")" | dd of="$hive" bs=1 seek="$1" conv=notrunc status=none
    fi
}
# One sequence number ahead of the other, and a checksum to match.
cp "$hive" "$scratch/closed"
byte 508 $(($(byte 508) ^ $(byte 4) ^ ($(byte 4) + 1)))
byte 4 $(($(byte 4) + 1))
refuse 3 "was not closed properly" boot-filters --hive "$hive" add alpha
refuse 0 "no list" boot-filters --hive "$hive" list
cp "$scratch/closed" "$hive"

merge "[-$service]"
refuse 3 "no service key in ControlSet001" boot-filters --hive "$hive" add alpha
refuse 3 "no service key in ControlSet001" boot-filters --hive "$hive" --create list
expect 0 "1 name in" boot-filters --hive "$hive" --create add alpha
merge '[\Select]
"Current"=dword:00000007'
refuse 3 "ControlSet007 is current and does not have it" boot-filters --hive "$hive" --create add alpha
merge '[-\Select]'
refuse 3 "it is no SYSTEM hive" boot-filters --hive "$hive" --create add alpha
head -c 5000 "$hive" >"$scratch/cut" && mv "$scratch/cut" "$hive"
refuse 3 "is a damaged registry hive" boot-filters --hive "$hive" --create add alpha
echo text >"$hive"
refuse 3 "is not a registry hive" boot-filters --hive "$hive" --create add alpha

[ $failed = 0 ] && echo "all as expected"
exit $failed
