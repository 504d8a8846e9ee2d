#!/bin/bash
# abi.sh BUILD [write]: compares the libraries in BUILD, an optimized build with debug information, with the descriptions of
# the last release in cmake/abi. Fails when programs linked with that release might not run with them, unless the major
# version has changed, which announces that. write: describes these libraries, as the release.
set -euo pipefail
build=$1
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

say() { printf '== %s\n' "$*"; }
soname() { sed -n "1,/<abi-corpus /s/.*<abi-corpus .*soname='\([^']*\)'.*/\1/p" "$1"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for component in libraries development; do
    cmake --install "$build" --prefix "$work/installed" --component $component >/dev/null
done

broken=0 compared=0
for library in qelstd qelbaselib qelctools; do
    released=cmake/abi/$library.abi.xz
    [[ ${2:-} == write || -e $released ]] || continue
    # Types that no installed header declares are not part of the interface.
    abidw --headers-dir "$work/installed/include" --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs \
        --out-file "$work/new.abi" "$(find "$work/installed" -name "lib$library.so")"
    if [[ ${2:-} == write ]]; then
        xz -9 <"$work/new.abi" >"$released"
        say "$released: $(wc -c <"$released") bytes"
        continue
    fi
    compared=1
    xz -d <"$released" >"$work/old.abi"
    if [[ $(soname "$work/old.abi") != $(soname "$work/new.abi") ]]; then
        say "lib$library.so: another major version than that of the last release"
        continue
    fi
    say "lib$library.so since the last release"
    result=0
    # Additions do not affect existing programs.
    abidiff --no-added-syms "$work/old.abi" "$work/new.abi" || result=$?
    # The bits: 1 and 2 an error; 4 a change, of the layout of a class for instance; 8 a removed symbol.
    ((result & 3)) && exit 1
    ((result & 12)) && broken=1
done
[[ ${2:-} != write ]] || exit 0
((compared)) || { say "no release yet to compare the libraries with"; exit 0; }
((broken)) && { say "programs linked with the last release might break: undo that, or raise the major version"; exit 1; }
say "programs linked with the last release run with these libraries"
