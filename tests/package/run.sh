#!/bin/bash
# run.sh CMAKE PKG-CONFIG C++ PYTHON SOURCE BUILD: uses the library like a user: installs it, builds a small program with it
# in each supported way, and runs that.
set -euo pipefail
cmake=$1 pkg_config=$2 cxx=$3 python=$4 source=$5 build=$6
consumer=$source/tests/package/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/elsewhere
unset DESTDIR

expect() # TEXT COMMAND...: the command must print the text
{
    local printed
    printed=$("${@:2}")
    [[ $printed == "$1" ]] || { echo "${*:2}: printed '$printed', not '$1'"; exit 1; }
}

version=$(sed -n 's/^project(qelstd VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
[[ $version == *.*.* ]]

echo "== installed tree, moved after the installation"
"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
mv "$work/prefix" "$prefix"
libraries=$(dirname "$(find "$prefix" -name libqelstd.so)")
for library in qelstd qelbaselib qelctools; do
    readelf -d "$libraries/lib$library.so" | grep -q "SONAME.*\[lib$library.so.${version%%.*}\]" ||
        { echo "lib$library.so does not carry the major version"; exit 1; }
done

grep -q "^ExecStart=/.*/bin/qel ns serve" "$prefix/lib/systemd/system/qel-ns.service"
for file in man/man1/qel.1 man/man1/qel-ns.1 bash-completion/completions/qel zsh/vendor-completions/_qel fish/vendor_completions.d/qel.fish; do
    [[ -s $prefix/share/$file ]] || { echo "share/$file is not installed"; exit 1; }
done

echo "== find_package, installed"
"$cmake" -S "$consumer" -B "$work/installed" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
"$cmake" --build "$work/installed" >/dev/null
expect "$version" "$work/installed/consumer"
expect "from C" "$work/installed/consumer_c"

echo "== the first project of a new user, installed"
"$cmake" -S "$source/examples/hello" -B "$work/hello" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
"$cmake" --build "$work/hello" >/dev/null
expect "$(<"$source/examples/hello/expected.txt")" "$work/hello/hello"

echo "== find_package, from the build tree"
"$cmake" -S "$consumer" -B "$work/built" -Dqelstd_DIR="$build" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
"$cmake" --build "$work/built" >/dev/null
expect "$version" "$work/built/consumer"
expect "from C" "$work/built/consumer_c"

echo "== pkg-config, installed"
export PKG_CONFIG_PATH=$libraries/pkgconfig
expect "$version" "$pkg_config" --modversion qelstd
read -ra flags < <("$pkg_config" --cflags --libs qelstd)
"$cxx" -std=c++20 "$consumer/consumer.cpp" -o "$work/consumer" "${flags[@]}"
expect "$version" env LD_LIBRARY_PATH="$libraries" "$work/consumer"

echo "== Python, installed"
package=$prefix/lib/python3/dist-packages
expect "[3, 1]" env -u QELSTD_LIBRARY PYTHONPATH="$package" PYTHONDONTWRITEBYTECODE=1 \
    "$python" -c "import qelstd; print(list(qelstd.IntSequence([1, 3])[::-1]))"

echo "== the libraries alone, without what the tests need"
"$cmake" -S "$source" -B "$work/alone" --no-warn-unused-cli -DQELSTD_BUILD_TESTS=OFF -DQELSTD_BUILD_TOOLS=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON \
    -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
echo "all of them work"
