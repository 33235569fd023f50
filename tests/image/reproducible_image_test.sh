#!/bin/bash
# Builds the kernel image once more, in a copy of the tree at a longer path, and compares the result
# to the byte with what `make image` has left.
# usage: reproducible_image_test.sh SOURCE_TREE NETSIEVE.sys TEST_IMAGES PACKAGE
set -euo pipefail
readonly source=$1 image=$2 test_images=$3 package=$4
work=$(mktemp -d)
readonly work
trap 'rm -rf "$work"' EXIT

tree=$work/a/place/whose/name/is/longer/than/that/of/any/tree/that/somebody/works/in
mkdir -p "$tree"/tests/{image,samples,tool}
cp -r "$source"/{CMakeLists.txt,cmake,samples,scripts,src,windows} "$tree"
cp -r "$source/tests/image/toy" "$tree/tests/image"
cp -r "$source/tests/tool/broken_hook" "$tree/tests/tool"
cp "$source"/tests/samples/client_header* "$tree/tests/samples"
# What the compiler cache has is no second build.
export CCACHE_DISABLE=1
{
    cmake -S "$tree" -B "$tree/work" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$tree/windows/mingw-w64-x86_64.cmake"
    cmake --build "$tree/work" --parallel 2
} >"$work/log" || { cat "$work/log" >&2; exit 1; }

diff -r "$(dirname "$image")" "$tree/build/image"
diff -r "$test_images" "$tree/build/image-tests"
diff -r "$package" "$tree/build/package"
