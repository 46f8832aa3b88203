#!/usr/bin/env bash
# Installs the built library below a temporary prefix, then builds a user's program against that tree and runs it.
#
#   check-install.sh cmake|pkgconfig BUILD_DIR CXX
#
# Besides the client, the program has one source that includes every installed header, so that a header which needs
# something that is not installed is found here.
set -euo pipefail

mode=$1
build_dir=$2
cxx=$3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/qxinstall-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }

if find "$prefix/include" -path '*/src/*' | grep .; then
    echo "the headers above are private; they must not be installed"
    exit 1
fi

mkdir "$work/client"
cp "$here/client.cpp" "$here/CMakeLists.txt" "$work/client/"
(cd "$prefix/include" && find . -name '*.h' -printf '#include "%P"\n' | sort) >"$work/client/all_headers.cpp"
[ -s "$work/client/all_headers.cpp" ] || { echo "no header was installed"; exit 1; }

case $mode in
cmake)
    cmake -S "$work/client" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$work/build"
    ;;
pkgconfig)
    mkdir "$work/build"
    pc=$(find "$prefix" -name qxPersistStore.pc)
    export PKG_CONFIG_PATH=${pc%/*}
    pkg-config --print-errors --exists 'qxPersistStore >= 0.1'
    libdir=$(pkg-config --variable=libdir qxPersistStore)
    # The words of pkg-config's answer are separate arguments.
    # shellcheck disable=SC2046
    "$cxx" "$work/client/client.cpp" "$work/client/all_headers.cpp" -o "$work/build/client" \
        $(pkg-config --cflags --libs qxPersistStore) -Wl,-rpath,"$libdir"
    ;;
*)
    echo "unknown mode '$mode'"
    exit 2
    ;;
esac

"$work/build/client" "$work/store"
[ -s "$work/store" ] || { echo "the client made no store"; exit 1; }
echo "install ($mode): the client built against the installed tree made a store"
