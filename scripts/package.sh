#!/usr/bin/env bash
# Builds the Debian packages into build-package/ and checks them with lintian. Called by ./dev package [amd64|arm64]...
# A package suits the Debian release it was built on, for libunwind's sake. arm64 is cross-built on another machine,
# against the arm64 libraries of the same release.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

output=$PWD/build-package
own=$(dpkg --print-architecture)
# shellcheck disable=SC1091  # a file of the system
release=$(. /etc/os-release && echo "$VERSION_ID")

die() {
    echo "package: $*" >&2
    exit 1
}

# build MACHINE [CMAKE-OPTION...]
build() {
    local folder=$PWD/build-package-$1
    cmake -S . -B "$folder" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
        -DQUORVINELER_TESTS=OFF \
        -DQUORVINELER_PACKAGE_SUFFIX="+deb$release" "${@:2}" >/dev/null
    cmake --build "$folder" --parallel "$(nproc)"
}

# pack MACHINE [CPACK-OPTION...]
pack() {
    (umask 022 && cd "build-package-$1" && cpack -G DEB -B "$output" "${@:2}" >cpack.log) ||
        { cat "build-package-$1/cpack.log" >&2 && die "cpack failed"; }
    rm -rf "$output/_CPack_Packages"
}

# Prints what the arm64 programs depend on: dpkg-shlibdeps, with the control files of the packages that the cross build
# used laid out as if they were built here, since this machine's package database knows its own machine alone.
arm64_dependencies() {
    local cache=$1 work=$2 control package library
    mkdir -p "$work/debian"
    printf 'Source: quorvineler\n\nPackage: quorvineler\nArchitecture: any\n' >"$work/debian/control"
    for control in "$cache"/control/*; do
        package=$work/debian/${control##*/}
        mkdir -p "$package/usr/lib/aarch64-linux-gnu"
        cp -r "$control" "$package/DEBIAN"
        awk 'NF >= 3 { print $1 ".so." $2 }' "$control/shlibs" | while read -r library; do
            library=$cache/sysroot/usr/lib/aarch64-linux-gnu/$library
            [[ ! -e $library ]] || cp -L "$library" "$package/usr/lib/aarch64-linux-gnu/"
        done
    done
    cd "$work"
    DEB_HOST_ARCH=arm64 dpkg-shlibdeps -O "${@:3}" |
        sed 's/^shlibs:Depends=//'
}

package_arm64() {
    local cache dependencies work folder=$PWD/build-package-arm64
    cache=$(scripts/aarch64.sh --debian "$release" --download-only)
    build arm64 -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" -DCMAKE_SYSROOT="$cache/sysroot" \
        -DCMAKE_STRIP=/usr/bin/aarch64-linux-gnu-strip
    work=$(mktemp -d)
    dependencies=$(arm64_dependencies "$cache" "$work" "$folder/dump_server" "$folder/examples/request_status" \
        "$folder/examples/libcrash_reporter.so")
    rm -rf "$work"
    [[ $dependencies == *libunwind8* ]] || die "dpkg-shlibdeps found no libunwind8 for arm64: '$dependencies'"
    dependencies+=", $(sed -n 's/^set(CPACK_DEBIAN_PACKAGE_DEPENDS "\(.*\)")$/\1/p' "$folder/CPackConfig.cmake")"
    pack arm64 -D CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF -D CPACK_DEBIAN_PACKAGE_DEPENDS="$dependencies"
}

machines=("$@")
if ((!$#)); then
    machines=(amd64 arm64)
    [[ $own == amd64 ]] || machines=("$own")
fi
for machine in "${machines[@]}"; do
    if [[ $machine == "$own" ]]; then
        build "$machine"
        pack "$machine"
    elif [[ $machine == arm64 ]]; then
        package_arm64
    else
        die "no package for $machine can be built on $own"
    fi
    package=$(ls "$output"/quorvineler_*+deb"$release"_"$machine".deb)
    lintian --fail-on error "$package"
    echo "package: $package"
    dpkg-deb -f "$package" Architecture Depends Installed-Size
done
