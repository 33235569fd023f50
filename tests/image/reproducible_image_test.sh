#!/bin/bash
# Builds the kernel image in two copies of the tree, at places of different length, and compares
# the results to the byte.
# usage: reproducible_image_test.sh SOURCE_TREE
set -euo pipefail
readonly source=$1
work=$(mktemp -d)
readonly work
trap 'rm -rf "$work"' EXIT

build() { # DIRECTORY JOBS
    local -r tree=$work/$1
    mkdir -p "$tree"/tests/{image,samples,tool}
    cp -r "$source"/{CMakeLists.txt,cmake,samples,scripts,src,windows} "$tree"
    cp -r "$source/tests/image/toy" "$tree/tests/image"
    cp -r "$source/tests/tool/broken_hook" "$tree/tests/tool"
    cp "$source"/tests/samples/client_header* "$tree/tests/samples"
    # What the compiler cache has is no second build.
    CCACHE_DISABLE=1 cmake -S "$tree" -B "$tree/work" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$tree/windows/mingw-w64-x86_64.cmake" >"$work/log"
    CCACHE_DISABLE=1 cmake --build "$tree/work" --parallel "$2" >"$work/log" || {
        cat "$work/log" >&2
        exit 1
    }
}

build first 1
# A file's time, a compiler's clock: nothing of it may be in the image.
sleep 1.1
build a-second/place/of/another/length 2
cd "$work"
for place in image image-tests package; do
    diff -r "first/build/$place" "a-second/place/of/another/length/build/$place"
done
