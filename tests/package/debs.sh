#!/bin/bash
# debs.sh BUILD SOURCE: tests the Debian packages in BUILD: they are installed in a temporary copy of this system in memory;
# programs run, users' projects build with the installed files, and no file is left when the packages are removed.
set -euo pipefail

say() { printf '== %s\n' "$*"; }
fail() { echo "debs: $*" >&2; exit 1; }
expect() # TEXT COMMAND...: the command must print the text
{
    local printed
    printed=$("${@:2}")
    [[ $printed == "$1" ]] || fail "${*:2}: printed '$printed', not '$1'"
}
quietly() { "$@" >/debs/log 2>&1 || { cat /debs/log >&2; fail "$*"; }; }

inside() # VERSION: runs as root of the copy; /debs has the packages, except those of debug information, and the projects
{
    local version=$1 major=${1%%.*} folder package
    folder=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    local packages=("libqelstd$major" libqelstd-dev python3-qelstd qelstd-tools)
    export HOME=/debs
    unset LD_LIBRARY_PATH PYTHONPATH QELSTD_LIBRARY PKG_CONFIG_PATH

    say "installed by dpkg"
    quietly dpkg -i /debs/*.deb
    for package in "${packages[@]}"; do
        expect "installed $version" dpkg-query -W -f '${db:Status-Status} ${Version}' "$package"
        expect "" dpkg --verify "$package"
        [[ -s /usr/share/doc/$package/copyright ]] || fail "$package has no copyright"
    done
    for library in qelstd baselib ctools; do
        ldconfig -p | grep "lib$library.so.$major " >/dev/null || fail "the loader does not find lib$library.so.$major"
        readelf -d "$folder/lib$library.so" | grep RUNPATH >/dev/null && fail "lib$library.so names a folder to search"
    done

    say "the command runs"
    [[ $(qel --version) == *"$version"* ]] || fail "qel --version: $(qel --version)"

    say "a project is built with find_package and with pkg-config"
    quietly cmake -S /debs/consumer -B /debs/built
    quietly cmake --build /debs/built
    grep "qelstd_DIR:PATH=$folder/" /debs/built/CMakeCache.txt >/dev/null || fail "another qelstd was found"
    expect "$version" /debs/built/consumer
    expect "from C" /debs/built/consumer_c
    local flags
    read -ra flags < <(pkg-config --cflags --libs qelstd)
    quietly c++ -std=c++20 -g /debs/consumer/consumer.cpp -o /debs/with_pkg_config "${flags[@]}"
    expect "$version" /debs/with_pkg_config

    say "Python imports the package"
    expect "['b']" /usr/bin/python3 -B -c "import qelstd; print(list(qelstd.StringSequence(['a', 'b'])[1:]))"

    if command -v gdb >/dev/null; then
        say "gdb loads the printers"
        gdb -nx -batch -ex 'break main' -ex run -ex 'info auto-load python-scripts' /debs/with_pkg_config >/debs/log 2>&1 ||
            true
        grep "Yes.*/libqelstd.so.$version-gdb.py" /debs/log >/dev/null || { cat /debs/log >&2; fail "gdb does not"; }
    fi

    say "removed"
    quietly dpkg --purge "${packages[@]}"
    ! command -v qel || fail "qel is still there"
}

copied() # BUILD SOURCE PLACE: makes the copy in that folder, in a separate mount namespace, and runs `inside` there
{
    local build=$1 source=$2 place=$3 version main package file depends page
    version=$(sed -n 's/^project(qelstd VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
    main=libqelstd${version%%.*}

    mount -t tmpfs tmpfs "$place"
    local root=$place/root changes=$place/changes
    mkdir "$root" "$changes" "$place/work"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$changes,workdir=$place/work" "$root"
    mount --rbind /proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mkdir "$root/debs"
    cp -r "$source/tests/package/consumer" "$0" "$root/debs"

    say "what there is, and what it asks for"
    for package in "$main" libqelstd-dev python3-qelstd qelstd-tools; do
        file=$(find "$build" -maxdepth 1 -name "${package}_${version}_*.deb")
        [[ -f $file ]] || fail "no package $package"
        cp "$file" "$root/debs"
        depends=$(dpkg-deb -f "$file" Depends)
        case $package in
            "$main") [[ $depends == *libc6*libstdc++6* ]] || fail "$package does not ask for its libraries: $depends" ;;
            *) [[ $depends == *"$main (= $version)"* ]] || fail "$package does not ask for $main: $depends" ;;
        esac
        [[ $(dpkg-deb -f "$file" Architecture) == $(case $package in python3-*) echo all ;; *) dpkg --print-architecture ;; esac) ]] ||
            fail "$package is for another architecture"
        if [[ $package == "$main" || $package == qelstd-tools ]]; then
            [[ -f $(find "$build" -maxdepth 1 -name "$package-dbgsym_${version}_*.ddeb") ]] ||
                fail "no debug information for $package"
        fi
    done
    dpkg-deb --info "$(find "$build" -maxdepth 1 -name "${main}_${version}_*.deb")" shlibs | grep "libqelstd ${version%%.*} $main" \
        >/dev/null || fail "$main does not say what its users depend on"

    file=$(find "$build" -maxdepth 1 -name "qelstd-tools_${version}_*.deb")
    for page in man/man1/qel.1 bash-completion/completions/qel zsh/vendor-completions/_qel; do
        dpkg-deb -c "$file" | grep "/usr/share/$page" >/dev/null || fail "qelstd-tools has no $page"
    done

    chroot "$root" /bin/bash /debs/debs.sh inside "$version"

    # The remaining changes are those of dpkg, ldconfig and this script.
    local left
    left=$(cd "$changes" && find . ! -type d | grep -v -E '^\./(debs/|tmp/|var/lib/dpkg/|var/log/|var/cache/|etc/ld\.so\.cache$)' || true)
    [[ -z $left ]] || fail "left behind: $left"
    say "nothing is left of them"
}

case $1 in
    inside | copied) "$@" ;;
    *)
        as_root=()
        ((EUID == 0)) || as_root=(--map-root-user)
        place=$(mktemp -d)
        trap 'rmdir "$place"' EXIT
        unshare "${as_root[@]}" --mount --propagation private "$0" copied "$(realpath "$1")" "$(realpath "$2")" "$place"
        ;;
esac
