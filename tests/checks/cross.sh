#!/bin/bash
# cross.sh COMPILER BUILD: checks with another operating system's compiler that the sources of the layers above baselib/,
# ctools/ and platform/ depend on no operating system and on no sizes but those of a 64-bit host. Nothing is linked. Only
# headers are needed: those that BUILD, a configured build tree, has linked. The objects go to BUILD/cross, so that the
# compiler cache can serve them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
compiler=$1 build=$2
mapfile -t folders < <(find qel -name '*.h' -printf '%h\n' | sort -u)
mapfile -t sources < <(find qel -name '*.cpp' | sort)
((${#sources[@]} > 50)) || { echo "hardly any sources below $PWD/qel" >&2; exit 1; }
if command -v ccache >/dev/null; then compiler="ccache $compiler"; fi
# The mark of exported symbols means nothing to formats other than ELF. constinit: std::mutex of this compiler's library has
# no constant initializer; the build for Linux checks that word. Deprecated: <strstream>, from whose streams strings are made.
options="-std=c++20 -Wall -Wextra -Werror -Wno-attributes -Wno-deprecated -Dconstinit= -DQEL_VERSION=\"\" -I$build/include ${folders[*]/#/-I}"
export compiler options build
compile()
{
    local object=$build/cross/${1//\//.}.o
    # shellcheck disable=SC2086
    $compiler $options -c -o "$object" "$1" || { echo "$1 depends on its host" >&2; return 1; }
}
export -f compile
mkdir -p "$build/cross"
printf '%s\n' "${sources[@]}" | xargs -P "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" -I{} bash -c 'compile {}'
echo "${#sources[@]} sources compiled by $($compiler -dumpmachine)"
