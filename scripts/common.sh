# Sourced by the scripts beside it: strict mode, the project's root, installing what is missing.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

# need WHAT=PACKAGE...
#
# WHAT is a command or the full path of a file, which may have * in it; PACKAGE is the Debian package that brings it.
# Installs the packages of those that are missing with apt-get, as root or through sudo. Says nothing when all is there.
need() {
    local pair what missing=()
    for pair in "$@"; do
        what=${pair%%=*}
        if [[ $what == /* ]]; then
            compgen -G "$what" >/dev/null || missing+=("${pair#*=}")
        else
            command -v "$what" >/dev/null || missing+=("${pair#*=}")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    if ! command -v apt-get >/dev/null; then
        echo "Missing, and there is no apt-get to install it: ${missing[*]}" >&2
        exit 1
    fi
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Missing: ${missing[*]}. Install with: apt-get install ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get -qq update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get -qq -o Dpkg::Use-Pty=0 install -y --no-install-recommends "${missing[@]}"; } \
        </dev/null >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}

need_build_tools() {
    need cmake=cmake ninja=ninja-build g++=g++
}

# What the command line tool stands on; a build without them leaves it out.
need_tool_libraries() {
    need /usr/include/CLI/CLI.hpp=libcli11-dev /usr/include/nlohmann/json.hpp=nlohmann-json3-dev
}

need_clang() {
    need clang++=clang llvm-symbolizer=llvm '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.asan-x86_64.a=libclang-rt-dev'
}

# configure PRESET [ARGUMENT...]: its output is shown only when something is wrong.
configure() {
    local log
    log=$(mktemp)
    if ! (cd "$root" && cmake --preset "$@") >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# build PRESET [ARGUMENT...]
build() {
    (cd "$root" && cmake --build --preset "$1" -j "$jobs" "${@:2}")
}
