#!/bin/bash
# debs.sh DEBS SOURCE: tests the Debian packages in the folder DEBS. In a temporary copy of this system in memory they are
# installed, upgraded and purged: programs run, users' projects and the examples build with the installed files, services
# are enabled as promised, and no file is left. Then a minimal system installs them, with only what they ask for.
set -euo pipefail

all=(libqelstd0 libqelstd-tls0 libqelstd-dev qelstd-tools qelstd-daemons qelstd-web qelstd-etcd qelstd-tls qelstd-doc python3-qelstd)

say() { printf '== %s\n' "$*"; }
fail() { echo "debs: $*" >&2; exit 1; }
expect() # TEXT COMMAND...: the command must print the text
{
    local printed
    printed=$("${@:2}")
    [[ $printed == "$1" ]] || fail "${*:2}: printed '$printed', not '$1'"
}
quietly() { "$@" >/debs/log 2>&1 || { cat /debs/log >&2; fail "$*"; }; }
enabled() { compgen -G "/etc/systemd/system/*.target.wants/$1" >/dev/null; }

# served COMMAND PATH EXPRESSION TEXT: `qel mon COMMAND` serves /debs/run.mon, Python's expression of its reply prints the text,
# and SIGTERM ends it.
served()
{
    local server line printed
    qel mon "$1" --listen 127.0.0.1:0 /debs/run.mon >/debs/line &
    server=$!
    read -r line </debs/line
    printed=$(python3 -B -c "import urllib.request as web
reply = web.urlopen('http://127.0.0.1:${line##* }$2', timeout=60)
print($3)") || true
    kill "$server"
    wait "$server" || fail "qel mon $1 failed"
    [[ $printed == "$4" ]] || fail "qel mon $1: printed '$printed', not '$4'"
}

# newer FILE FOLDER: the package, as the next version.
newer()
{
    local part=/debs/part version
    rm -rf "$part"
    dpkg-deb -R "$1" "$part"
    version=$(dpkg-deb -f "$1" Version)
    sed -i "s/= $version)/= $version+next)/g; s/^Version: .*/Version: $version+next/" "$part/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$part" "$2" >/dev/null
}

inside() # VERSION: runs as root of the copy; /debs has the packages, except those of debug information, and the projects
{
    local version=$1 folder package
    folder=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    export HOME=/debs
    unset LD_LIBRARY_PATH PYTHONPATH QELSTD_LIBRARY PKG_CONFIG_PATH

    say "installed by dpkg"
    quietly dpkg -i /debs/*.deb
    for package in "${all[@]}"; do
        expect "installed $version" dpkg-query -W -f '${db:Status-Status} ${Version}' "$package"
        expect "" dpkg --verify "$package"
        [[ -s /usr/share/doc/$package/copyright ]] || fail "$package has no copyright"
    done
    for library in qelstd qelbaselib qelctools; do
        ldconfig -p | grep "lib$library.so.0 " >/dev/null || fail "the loader does not find lib$library.so.0"
        readelf -d "$folder/lib$library.so.0" | grep RUNPATH >/dev/null && fail "lib$library.so names a folder to search"
    done

    say "the binaries are hardened"
    python3 /debs/checks/hardening.py /debs - "$folder"/libqel*.so.0 /usr/bin/qel /usr/libexec/qelstd/qel-* || fail "they are not"

    say "the command runs"
    [[ $(qel --version) == *"$version"* ]] || fail "qel --version: $(qel --version)"

    say "monitor files are served, for Prometheus and as a page"
    qel mon create /debs/run.mon
    qel mon add /debs/run.mon done int 7
    mkfifo /debs/line
    served export /metrics 'reply.read().split()[-1].decode()' 7
    served serve / 'reply.status, reply.headers.get_content_type()' "200 text/html"

    say "certificates are made"
    quietly qel tls init /debs/authority
    quietly qel tls issue here --authority /debs/authority --to /debs/here
    quietly qel tls show /debs/here

    say "a project is built with find_package and with pkg-config, and so are the examples"
    quietly cmake -S /debs/consumer -B /debs/built
    quietly cmake --build /debs/built
    grep "qelstd_DIR:PATH=$folder/" /debs/built/CMakeCache.txt >/dev/null || fail "another qelstd was found"
    expect "$version" /debs/built/consumer
    expect "from C" /debs/built/consumer_c
    local flags
    read -ra flags < <(pkg-config --cflags --libs qelstd)
    quietly c++ -std=c++20 -g /debs/consumer/consumer.cpp -o /debs/with_pkg_config "${flags[@]}"
    expect "$version" /debs/with_pkg_config
    quietly cmake -S /usr/share/doc/qelstd-doc/examples -B /debs/examples
    quietly cmake --build /debs/examples --parallel "$(nproc)"
    expect "$(cat /usr/share/doc/qelstd-doc/examples/defineclass/expected.txt)" /debs/examples/defineclass/defineclass

    say "Python imports the package"
    expect "['b']" /usr/bin/python3 -B -c "import qelstd; print(list(qelstd.StringSequence(['a', 'b'])[1:]))"

    if command -v gdb >/dev/null; then
        say "gdb loads the printers"
        gdb -nx -batch -ex 'break main' -ex run -ex 'info auto-load python-scripts' /debs/with_pkg_config >/debs/log 2>&1 ||
            true
        grep "Yes.*/libqelstd.so.$version-gdb.py" /debs/log >/dev/null || { cat /debs/log >&2; fail "gdb does not"; }
    fi

    say "the name server and its port are enabled, and the remote shell server is not; none is beyond the loopback"
    local unit
    for unit in qel-ns.service qel-ns.socket; do
        enabled "$unit" || fail "$unit is not enabled"
    done
    for unit in qel-rshd.service qel-rshd.socket; do
        ! enabled "$unit" || fail "$unit is enabled"
    done
    expect "" sed -n '/^Listen/{/=127\.0\.0\.1:/!p}' /lib/systemd/system/qel-*.socket

    say "upgraded: what the administrator has disabled stays so"
    quietly systemctl --root=/ disable qel-ns.service qel-ns.socket
    mkdir /debs/newer
    for package in /debs/*.deb; do
        newer "$package" /debs/newer
    done
    quietly dpkg -i /debs/newer/*.deb
    expect "installed $version+next" dpkg-query -W -f '${db:Status-Status} ${Version}' qelstd-daemons
    for unit in qel-ns.service qel-ns.socket; do
        ! enabled "$unit" || fail "$unit is enabled again"
    done
    quietly qel selftest

    say "removed"
    quietly dpkg --purge "${all[@]}"
    [[ ! -e /usr/bin/qel ]] || fail "qel is still there"
}

copied() # DEBS SOURCE PLACE: makes the copy in that folder, in a separate mount namespace, and runs `inside` there
{
    local debs=$1 source=$2 place=$3 version package file depends page
    version=$(sed -n 's/^project(qelstd VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")

    mount -t tmpfs tmpfs "$place"
    local root=$place/root changes=$place/changes
    mkdir "$root" "$changes" "$place/work"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$changes,workdir=$place/work" "$root"
    mount --rbind /proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mkdir "$root/debs"
    cp -r "$source/tests/package/consumer" "$source/tests/checks" "$0" "$root/debs"

    say "what there is, and what it asks for"
    for package in "${all[@]}"; do
        file=$(find "$debs" -maxdepth 1 -name "${package}_${version}_*.deb")
        [[ -f $file ]] || fail "no package $package"
        cp "$file" "$root/debs"
        depends=$(dpkg-deb -f "$file" Depends)
        case $package in
            libqelstd0) [[ $depends == *libc6*libstdc++6* ]] || fail "$package does not ask for its libraries: $depends" ;;
            libqelstd-tls0) [[ $depends == *libssl3* ]] || fail "$package does not ask for OpenSSL: $depends" ;;
            libqelstd-dev | qelstd-tools)
                [[ $depends == *"libqelstd0 (= $version)"* ]] || fail "$package does not ask for libqelstd0: $depends"
                [[ $depends != *httpd* ]] || fail "$package asks for a web server: $depends" ;;
            qelstd-web) [[ $depends == *libmicrohttpd* ]] || fail "$package does not ask for its library: $depends" ;;
            qelstd-etcd) [[ $depends == *libcurl4* ]] || fail "$package does not ask for libcurl4: $depends" ;;
            qelstd-tls)
                [[ $depends == *"libqelstd-tls0 (= $version)"* ]] || fail "$package does not ask for libqelstd-tls0: $depends" ;;
            qelstd-daemons) [[ $depends == *qelstd-tools* ]] || fail "$package does not ask for qelstd-tools: $depends" ;;
        esac
        [[ $package == qelstd-etcd || $depends != *libcurl* ]] || fail "$package asks for libcurl: $depends"
        if [[ $package == libqelstd0 || $package == qelstd-tools ]]; then
            [[ -f $(find "$debs" -maxdepth 1 -name "$package-dbgsym_${version}_*.deb") ]] ||
                fail "no debug information for $package"
        fi
        # Also under a strict umask.
        [[ -z $(dpkg-deb -c "$file" | grep '^d' | grep -v '^drwxr-xr-x') ]] || fail "$package has a folder that is not open to all"
    done
    dpkg-deb -I "$root/debs/libqelstd0_${version}"_*.deb shlibs | grep 'libqelstd 0 libqelstd0' >/dev/null ||
        fail "libqelstd0 does not say what its users depend on"
    for page in man/man1/qel.1.gz man/man5/qelstd-config.5.gz man/man7/qelstd.7.gz bash-completion/completions/qel zsh/vendor-completions/_qel fish/vendor_completions.d/qel.fish doc/qelstd-tools/changelog.gz; do
        dpkg-deb -c "$root/debs/qelstd-tools_${version}"_*.deb | grep "/usr/share/$page" >/dev/null ||
            fail "qelstd-tools has no $page"
    done

    chroot "$root" /bin/bash /debs/debs.sh inside "$version"

    # The remaining changes are those of dpkg, ldconfig and this script.
    local left
    left=$(cd "$changes" && find . ! -type d |
        grep -v -E '^\./(debs/|tmp/|var/lib/dpkg/|var/log/|var/cache/|etc/ld\.so\.cache$)' || true)
    [[ -z $left ]] || fail "left behind: $left"
    say "nothing is left of them"
}

minimal() # DEBS: on a Debian of only what the packages ask for
{
    command -v mmdebstrap >/dev/null || { say "no mmdebstrap: not tried on a minimal system"; return; }
    say "a minimal system"
    local packages=()
    for package in "${all[@]}"; do
        packages+=("$(find "$1" -maxdepth 1 -name "${package}_*.deb")")
    done
    # shellcheck disable=SC2016 # mmdebstrap expands $1, the root
    mmdebstrap --quiet --variant=apt --format=null \
        --customize-hook="mkdir \"\$1/debs\" && cp ${packages[*]} \"\$1/debs\"" \
        --customize-hook='chroot "$1" sh -c "apt-get -qq install -y --no-install-recommends /debs/*.deb >/dev/null"' \
        --customize-hook='chroot "$1" qel selftest' \
        --customize-hook='chroot "$1" python3 -c "import qelstd; print(list(qelstd.IntSequence([3, 1])[::-1]))"' \
        --customize-hook='chroot "$1" sh -c "apt-get -qq purge -y qelstd-daemons libqelstd0 >/dev/null && ! command -v qel"' \
        bookworm
}

case $1 in
    inside | copied) "$@" ;;
    *)
        as_root=()
        ((EUID == 0)) || as_root=(--map-root-user)
        place=$(mktemp -d)
        trap 'rmdir "$place"' EXIT
        unshare "${as_root[@]}" --mount --propagation private "$0" copied "$(realpath "$1")" "$(realpath "$2")" "$place"
        minimal "$(realpath "$1")"
        ;;
esac
