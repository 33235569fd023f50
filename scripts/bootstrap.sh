#!/bin/bash
# Installs the Debian packages that a make target needs and that are missing, and says so. Prints
# nothing when none is missing.
#
# usage: scripts/bootstrap.sh GROUP...     with GROUP one of build, image, sign, demo, test, checks
#        scripts/bootstrap.sh --list       prints every package with its group and its reason
set -euo pipefail

# Group, package, what it is for.
readonly packages="\
build   make                        runs these targets
build   cmake                       configures the build
build   ninja-build                 runs the build
build   g++                         compiles the host and the native driver
build   ccache                      keeps what was compiled before
build   libboost-context-dev        the fibers of the simulated scheduler
build   libpcap-dev                 reads and writes captures
build   libhivex-dev                reads and writes registry hives
build   libdw-dev                   names the functions and variables that reports tell of
build   libcli11-dev                parses the command line
build   libfmt-dev                  formats what is printed
build   nlohmann-json3-dev          writes reports for programs
image   g++-mingw-w64-x86-64-win32  compiles and links the kernel image
image   python3                     checks the image that was linked
image   python3-pefile              reads the image for that check
image   llvm-14                     makes the import library for Microsoft's linker
sign    openssl                     makes a certificate to test-sign with
sign    osslsigncode                signs the images and verifies it
test    libgtest-dev                the test framework
test    libgmock-dev                the test framework's matchers
test    libbenchmark-dev            the benchmark framework
test    patch                       puts faults into copies of the driver
test    python3                     draws faults, and runs mutants
test    lld-14                      links with the import library for Microsoft's linker, and mutants
test    openssl                     makes a certificate to test-sign with
test    osslsigncode                signs the images and verifies it
demo    tcpdump                     shows what was withheld
test    tcpdump                     what replay is compared with
test    libwin-hivex-perl           reads the hives that the tests write
test    reglookup                   the same, by other means
test    clang-14                    compiles a filter with a point at each load and store
checks  clang-14                    compiles the sanitizer and the search builds
checks  libclang-rt-14-dev          the run-time libraries of the sanitizers
checks  llvm-14                     puts names and lines into what the sanitizers report
checks  clang-format-14             checks the formatting
checks  clang-tidy-14               the static analysis"

fail() {
    echo "bootstrap: $*" >&2
    exit 1
}

usage() {
    sed -n 's/^# \{0,1\}//; 2,6p' "$0" >&2
    exit 2
}

wanted_packages() { # GROUP...
    local group
    for group in "$@"; do
        grep -q "^$group " <<<"$packages" || usage
    done
    awk -v groups=" $* " 'index(groups, " " $1 " ") { print $2 }' <<<"$packages"
}

missing_packages() { # PACKAGE...
    local installed
    # dpkg-query fails as soon as it has not heard of one of the names.
    installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || true)
    printf '%s\n' "$@" | grep -vxFf <(sed -n 's/^installed //p' <<<"$installed") || true
}

install_packages() { # PACKAGE...
    local as_root=()
    local -r by_hand="run this as root and start again: apt-get update && apt-get install $*"
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || fail "not root, and there is no sudo; $by_hand"
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=300 update -qq || fail "apt-get update failed; $by_hand"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "$@" \
        </dev/null >/dev/null ||
        fail "apt-get install failed; $by_hand"
}

main() {
    [ $# -gt 0 ] || usage
    if [ "$1" = --list ]; then
        echo "$packages"
        return
    fi
    command -v dpkg-query >/dev/null ||
        fail "this is not Debian: see that you have what these are named after, and build with" \
            "cmake --preset release: $(wanted_packages "$@" | paste -sd ' ')"

    local wanted missing name
    wanted=$(wanted_packages "$@")
    # shellcheck disable=SC2086 # one word per package
    missing=$(missing_packages $wanted)
    [ -n "$missing" ] || return 0

    echo "Installing the Debian packages that are missing:"
    for name in $missing; do
        awk -v name="$name" '$2 == name { $1 = ""; print " " $0 }' <<<"$packages" | head -n 1
    done
    # shellcheck disable=SC2086
    install_packages $missing
}

main "$@"
