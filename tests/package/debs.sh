#!/bin/bash
# debs.sh BUILD SOURCE: the Debian packages in BUILD do what they are for: dpkg installs them in a root of their own, with
# its own data base; the programs run, users' projects build with what is there; and nothing is left when they are removed.
set -euo pipefail
build=$1 source=$(realpath "$2")
((EUID == 0)) || exec unshare --map-root-user "$0" "$@"

consumer=$source/tests/package/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
version=$(sed -n 's/^project(qelstd VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
arch=$(dpkg --print-architecture)
folder=lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libraries=$root/usr/$folder
unset DESTDIR

say() { printf '== %s\n' "$*"; }
fail() { echo "debs: $*" >&2; exit 1; }
expect() # TEXT COMMAND...: the command must print the text
{
    local printed
    printed=$("${@:2}")
    [[ $printed == "$1" ]] || fail "${*:2}: printed '$printed', not '$1'"
}
dpkg_there() { dpkg --root="$root" --log="$work/dpkg.log" --force-depends "$@" 2>"$work/dpkg.err" >/dev/null || { cat "$work/dpkg.err" >&2; fail "dpkg $*"; }; }

say "what there is, and what it asks for"
main=libqelstd${version%%.*}
declare -A file
for package in "$main" libqelstd-dev python3-qelstd qelstd-tools; do
    file[$package]=$(find "$build" -maxdepth 1 -name "${package}_${version}_*.deb")
    [[ -f ${file[$package]} ]] || fail "no package $package"
    depends=$(dpkg-deb -f "${file[$package]}" Depends)
    [[ $package == "$main" || $depends == *"$main (= $version)"* ]] || fail "$package does not depend on $main: $depends"
    dpkg-deb -f "${file[$package]}" Description Maintainer Section | grep -q . || fail "$package says nothing of itself"
done
[[ $(dpkg-deb -f "${file[$main]}" Depends) == *libc6*libstdc++6* ]] || fail "$main does not ask for its libraries"
[[ $(dpkg-deb -f "${file[python3-qelstd]}" Architecture) == all ]] || fail "python3-qelstd is for one architecture"
[[ $(dpkg-deb -f "${file[$main]}" Architecture) == "$arch" ]] || fail "$main is not for $arch"
dpkg-deb --ctrl-tarfile "${file[$main]}" | tar -tf - | grep -q shlibs || fail "$main does not say what its users depend on"
[[ -f $(find "$build" -maxdepth 1 -name "$main-dbgsym_${version}_*.ddeb") ]] || fail "no debug information"

say "installed"
mkdir -p "$root/var/lib/dpkg/"{updates,info,triggers}
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg_there -i "${file[@]}"
for package in "${!file[@]}"; do
    [[ $(dpkg-query --root="$root" -W -f '${db:Status-Status}' "$package") == installed ]] || fail "$package is not installed"
    [[ -s $root/usr/share/doc/$package/copyright ]] || fail "$package has no copyright"
done
dpkg --root="$root" --verify "${!file[@]}" | grep . && fail "installed files differ from the packages'"
for library in qelstd baselib ctools; do
    [[ -f $libraries/lib$library.so.${version%%.*} && -L $libraries/lib$library.so ]] || fail "no lib$library.so in $folder"
    readelf -d "$libraries/lib$library.so" | grep -q RUNPATH && fail "lib$library.so names a folder to search"
done
[[ -f $root/usr/share/gdb/auto-load/usr/$folder/libqelstd.so.$version-gdb.py ]] || fail "gdb would not find the printers"

say "the command runs"
export LD_LIBRARY_PATH=$libraries # what ldconfig does for the system's own root
[[ $("$root/usr/bin/qel" --version) == *"$version"* ]] || fail "qel --version: $("$root/usr/bin/qel" --version)"

say "a project is built with find_package and with pkg-config"
cmake -S "$consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$work/consumer" >/dev/null
grep -q "qelstd_DIR:PATH=$root/" "$work/consumer/CMakeCache.txt" || fail "another qelstd was found"
expect "$version" "$work/consumer/consumer"
expect "from C" "$work/consumer/consumer_c"
read -ra flags < <(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs qelstd)
c++ -std=c++20 "$consumer/consumer.cpp" -o "$work/with_pkg_config" "${flags[@]}"
expect "$version" "$work/with_pkg_config"

say "Python imports the package"
expect "['b']" env -u QELSTD_LIBRARY PYTHONPATH="$root/usr/lib/python3/dist-packages" PYTHONDONTWRITEBYTECODE=1 \
    /usr/bin/python3 -c "import qelstd; print(list(qelstd.StringSequence(['a', 'b'])[1:]))"

say "removed, with nothing left"
dpkg_there --purge "${!file[@]}"
left=$(find "$root" -path "$root/var" -prune -o ! -type d -print)
[[ -z $left ]] || fail "left behind: $left"
[[ -z $(find "$root" -path "$root/var" -prune -o -type d -print | grep qelstd) ]] || fail "folders are left behind"
echo "the packages install, run and go: $(basename -a "${file[@]}" | sort | tr '\n' ' ')"
