#!/bin/bash
# abi.sh BUILD: compares the libraries in BUILD, an optimized build with debug information, with those of the last tag. Fails
# when they are incompatible with programs linked with those of the tag, unless the major version has changed, which
# announces that.
set -euo pipefail
build=$1
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

say() { printf '== %s\n' "$*"; }

tag=$(git describe --tags --abbrev=0 2>/dev/null || true)
if [[ -z $tag ]]; then
    say "no tag yet: there is no release to compare the libraries with"
    exit 0
fi

folder=build/abi/$tag
if [[ ! -e $folder/done ]]; then
    say "building $tag in $folder"
    rm -rf "$folder"
    mkdir -p "$folder/source"
    git archive "$tag" | tar -x -C "$folder/source"
    cmake -S "$folder/source" -B "$folder/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_LIBDIR=lib \
        -DCMAKE_C_FLAGS=-g -DCMAKE_CXX_FLAGS=-g -DQELSTD_BUILD_TESTS=OFF -DQELSTD_BUILD_TOOLS=OFF >"$folder/configure.log"
    cmake --build "$folder/build"
    cmake --install "$folder/build" --prefix "$folder/prefix" >/dev/null
    touch "$folder/done"
fi
rm -rf build/abi/now
cmake --install "$build" --prefix build/abi/now >/dev/null

major() { readelf -d "$1" | sed -n 's/.*SONAME.*\.so\.\([0-9]*\)\]/\1/p'; }

broken=0
for library in qelstd baselib ctools; do
    old=$folder/prefix/lib/lib$library.so
    new=$(find build/abi/now -name "lib$library.so")
    if [[ $(major "$old") != $(major "$new") ]]; then
        say "lib$library.so: another major version than that of $tag"
        continue
    fi
    say "lib$library.so since $tag"
    result=0
    # Additions do not affect existing programs.
    abidiff --no-added-syms --headers-dir1 "$folder/prefix/include" --headers-dir2 build/abi/now/include "$old" "$new" || result=$?
    # The bits: 1 and 2 an error; 4 a change, of the layout of a class for instance; 8 a removed symbol.
    ((result & 3)) && exit 1
    ((result & 12)) && broken=1
done
((broken)) && { say "programs linked with $tag might break: undo that, or raise the major version"; exit 1; }
say "programs linked with $tag run with these libraries"
