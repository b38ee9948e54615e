# shellcheck shell=bash
# Installs Debian packages that are missing. Sourced by the commands of this project.

# shellcheck disable=SC2034 # used by the scripts that source this one
{
    packages_build="cmake ninja-build g++ pkg-config libcurl4-openssl-dev libssl-dev libboost-dev
        libboost-thread-dev libboost-system-dev libmount-dev libcli11-dev nlohmann-json3-dev"
    packages_demo="nginx-light icecast2 ffmpeg openssl"
    packages_test="$packages_build $packages_demo libgtest-dev libgmock-dev minidlna curl
        vsftpd proftpd-core e2fsprogs iproute2 nftables zsh groff-base"
    packages_test="$packages_test apache2-bin tinyproxy-bin lighttpd lighttpd-mod-openssl squid squid-common
        gerbera rygel"
    packages_sanitized="clang-14 lld-14 libclang-rt-14-dev"
    packages_lint="clang-format-14 clang-tidy-14 doxygen"
    packages_fuzz="$packages_build $packages_sanitized"
    packages_deb="dpkg-dev debhelper fakeroot"
    # Players' frameworks: what integrations/ is built with, and what the tests decode with (bad: MPEG-TS).
    packages_deb_integrations="libgstreamer1.0-dev libavformat-dev libavcodec-dev libavutil-dev"
    packages_integrations="$packages_deb_integrations gstreamer1.0-tools gstreamer1.0-plugins-base
        gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav"
    packages_test="$packages_test $packages_integrations"
    packages_bench="$packages_build python3 nginx-light openssl libavformat-dev libgstreamer1.0-dev
        gstreamer1.0-plugins-base gstreamer1.0-plugins-good glib-networking libbenchmark-dev valgrind gnuplot-nox"
    packages_test="$packages_test abigail-tools $packages_deb"
    # The 32-bit ARM target: what runs here, and what is unpacked for the target (scripts/sysroot.sh).
    packages_target="cmake ninja-build pkg-config g++-arm-linux-gnueabihf qemu-user abigail-tools nginx-light icecast2
        ffmpeg openssl iproute2 locales"
    packages_sysroot="libc6-dev libcurl4-openssl-dev libssl-dev libboost-dev libboost-thread-dev libboost-system-dev
        libmount-dev libcli11-dev nlohmann-json3-dev libgtest-dev libgmock-dev"

    # These exclude each other, and any other FTP server that the machine may have, or would start as services
    # of the machine. The tests start them by hand, so they are not installed but unpacked, here:
    packages_unpacked="vsftpd proftpd-core lighttpd lighttpd-mod-openssl squid squid-common gerbera rygel"
    unpack_folder="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build/servers"
}

package_installed() {
    # Another package may provide it, as nginx-full does nginx-light's server.
    case $1 in
    nginx-light) command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] ;;
    *) [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ] ;;
    esac
}

# Runs a command as root.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# install_packages NAME...: says what it installs; says nothing when all is there.
install_packages() {
    local missing=() unpacked=() name
    for name in "$@"; do
        case " $packages_unpacked " in
        *" $name "*) unpacked+=("$name") ;;
        *) package_installed "$name" || missing+=("$name") ;;
        esac
    done
    if [ ${#unpacked[@]} -gt 0 ]; then
        unpack_packages "${unpacked[@]}" || return 1
    fi
    [ ${#missing[@]} -eq 0 ] && return 0

    if ! command -v apt-get >/dev/null; then
        echo "These packages are missing, and there is no apt to install them: ${missing[*]}" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        echo "These packages are missing: ${missing[*]}" >&2
        echo "Run this once as root, or install them: apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "Installing packages: ${missing[*]}"
    install_quietly "${missing[@]}"
}

# In a subshell, so that the trap is its own.
install_quietly() (
    local log policy=/usr/sbin/policy-rc.d
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=120)
    log=$(mktemp)
    trap 'rm -f "$log"' EXIT
    trap 'exit 130' INT TERM
    # The servers are for tests, which start their own: installing them starts none.
    if [ ! -e "$policy" ]; then
        trap 'rm -f "$log"; as_root rm -f "$policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null
        as_root chmod 755 "$policy"
    fi
    # Package lists may be absent (a fresh container) or old.
    if ! { as_root "${apt[@]}" install -y --no-install-recommends "$@" ||
        { as_root "${apt[@]}" update && as_root "${apt[@]}" install -y --no-install-recommends "$@"; }; } \
        >"$log" 2>&1; then
        cat "$log" >&2
        echo "Installing failed." >&2
        return 1
    fi
)

# unpack_packages NAME...: into $unpack_folder, with the libraries that they need installed as usual.
unpack_packages() {
    local missing=() name libraries
    for name in "$@"; do
        [ -e "$unpack_folder/$name.libraries" ] || missing+=("$name")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "Unpacking packages: ${missing[*]}"
        unpack_quietly "${missing[@]}" || return 1
    fi
    for name in "$@"; do
        libraries=$(cat "$unpack_folder/$name.libraries") || return 1
        # shellcheck disable=SC2086 # a list of words
        install_packages $libraries || return 1
    done
}

# In a subshell, so that the trap and the folder are its own.
unpack_quietly() (
    local folder file name
    folder=$(mktemp -d)
    trap 'rm -rf "$folder"' EXIT
    trap 'exit 130' INT TERM
    mkdir -p "$unpack_folder"
    cd "$folder" || exit 1
    if ! { apt-get -qq download "$@" || { as_root apt-get -qq update && apt-get -qq download "$@"; }; } \
        >log 2>&1; then
        cat log >&2
        echo "Downloading failed." >&2
        exit 1
    fi
    for file in *.deb; do
        name=$(dpkg-deb -f "$file" Package)
        dpkg-deb -x "$file" "$unpack_folder" || exit 1
        # Perl and JavaScript are for what the tests leave alone: database log-ins, pages for browsers.
        dpkg-deb -f "$file" Depends | tr ',' '\n' | sed -n 's/^ *\(lib[^ (|]*\).*/\1/p' |
            sed '/^libjs-/d; /-perl$/d' >"$unpack_folder/$name.libraries"
    done
)
