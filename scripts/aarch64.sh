#!/usr/bin/env bash
# Proves the project on 64-bit ARM: cross-builds it against Debian's arm64 packages and runs the same test binary that runs
# natively in an emulated machine (Debian's arm64 kernel and libraries under qemu-system-aarch64).
# Downloads once, into .cache/aarch64/; touches nothing else of the system but for packages that are missing on it.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
guest_project=/quorvineler  # where the guest finds the project; not below /tmp, which tests replace

usage() {
    cat <<'TEXT'
usage: ./dev aarch64 [--debian 12|13] [--timeout SECONDS] [--download-only | --build-only | --shell | --run 'COMMAND'] [-- TEST-ARGUMENTS]

Cross-builds the project for aarch64 and runs its tests in an emulated machine; ends with their status.
  --debian N         libraries and kernel of Debian N: 13 (the default, libunwind 1.8) or 12 (libunwind 1.6)
  --timeout SECONDS  the longest the machine may run (default 900)
  --download-only    stop before the cross build; print the folder with sysroot/ and control/
  --build-only       stop after the cross build
  --shell            an interactive shell in the machine instead of the tests
  --run 'COMMAND'    a shell command line in the machine instead of the tests; ends with its status
  -- ARGUMENTS       go to the test binary, e.g. -- --gtest_filter='detach.*'
TEXT
}

die() {
    echo "aarch64: $*" >&2
    exit 1
}

say() {
    echo "aarch64: $*" >&2
}

parse_arguments() {
    debian=13 timeout_s=900 mode=tests run_command='' test_arguments=()
    while (($#)); do
        case $1 in
            --debian) debian=${2-} && shift ;;
            --timeout) timeout_s=${2-} && shift ;;
            --download-only) mode=download ;;
            --build-only) mode=build ;;
            --shell) mode=shell ;;
            --run) mode=run run_command=${2-} && shift ;;
            --help | -h) usage && exit ;;
            --) shift && test_arguments=("$@") && break ;;
            *) usage >&2 && exit 2 ;;
        esac
        shift || die "an option lacks its value, see --help"
    done
    case $debian in
        12) codename=bookworm build=$project/build-aarch64-debian12 ;;
        13) codename=trixie build=$project/build-aarch64 ;;
        *) die "--debian takes 12 or 13" ;;
    esac
    [[ $timeout_s =~ ^[1-9][0-9]*$ ]] || die "--timeout takes a number of seconds"
    [[ $mode != run || $run_command ]] || die "--run takes a command line"
    [[ $mode != shell || -t 0 ]] || die "--shell needs a terminal"
    cache=$project/.cache/aarch64/debian$debian
    sysroot=$cache/sysroot
}

# Installs the Debian packages of this machine that are missing; asks the network only then.
install_host_packages() {
    local missing=() what package
    while read -r what package; do
        if [[ $what == /* ]]; then
            [[ -e $what ]] || missing+=("$package")
        else
            command -v "$what" >/dev/null || missing+=("$package")
        fi
    done <<LIST
aarch64-linux-gnu-g++ g++-aarch64-linux-gnu
arm-linux-gnueabihf-as binutils-arm-linux-gnueabihf
qemu-system-aarch64 qemu-system-arm
cmake cmake
ninja ninja-build
pkg-config pkg-config
cpio cpio
$keyring debian-archive-keyring
LIST
    ((${#missing[@]})) || return 0
    command -v apt-get >/dev/null || die "this machine lacks ${missing[*]} and has no apt-get"
    [[ $EUID == 0 ]] || die "missing packages, install them as root: apt-get install ${missing[*]}"
    say "installing ${missing[*]}"
    {
        apt-get -qq update
        DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}"
    } >&2 || die "apt-get could not install ${missing[*]}"
    [[ -e $keyring ]] || die "debian-archive-keyring of this system has no keys of Debian $debian ($keyring)"
}

# apt with folders of its own below $1, so that nothing of this system's package state is read or changed.
own_apt() {
    local folder=$1
    shift
    apt-get -qq -o Dir::State="$folder/state" -o Dir::State::status="$folder/status" -o Dir::Cache="$folder/cache" \
        -o Dir::Etc::sourcelist="$folder/sources.list" -o Dir::Etc::sourceparts=/dev/null -o Dir::Etc::preferencesparts=/dev/null \
        -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User=root \
        -o APT::Get::AllowUnauthenticated=false -o Debug::NoLocking=true "$@" >&2
}

# What the project is built against and what the guest runs. The cloud kernel is the same kernel with fewer drivers, a
# third of the download.
arm64_packages=(libc6-dev libstdc++6 libunwind-dev libelf-dev liblzma-dev libiberty-dev libgtest-dev libgmock-dev busybox-static)
kernel_package=linux-image-cloud-arm64

# Fills $cache: sysroot/ (headers and libraries), control/ (deb-symbols(5) and deb-shlibs(5) by package), vmlinuz,
# busybox.
download_debian() {
    local wanted="${arm64_packages[*]} $kernel_package control"
    if [[ -e $cache/complete && $(<"$cache/complete") == "$wanted" ]]; then
        return
    fi
    local address apt=$cache/apt
    address=$(archive_address)
    say "fetching Debian $debian's arm64 packages"
    rm -rf "$cache"
    mkdir -p "$apt"/state/lists/partial "$apt"/cache/archives/partial "$apt/other"
    : >"$apt/status"
    echo "deb [signed-by=$keyring] $address $codename main" >"$apt/sources.list"
    fetch_package_list "$apt"
    own_apt "$apt" install -y --no-install-recommends --download-only "${arm64_packages[@]}" ||
        die "could not fetch Debian $debian's arm64 packages"
    unpack_sysroot "$apt/cache/archives"
    (cd "$apt/other" && own_apt "$apt" download "$(newest_kernel_package "$apt")") ||
        die "could not fetch Debian $debian's arm64 kernel"
    dpkg-deb --fsys-tarfile "$apt"/other/linux-image-*.deb | tar -x -O --wildcards './boot/vmlinuz-*' >"$cache/vmlinuz"
    cp "$sysroot/usr/bin/busybox" "$cache/busybox"
    rm -rf "$apt"
    echo "$wanted" >"$cache/complete"
}

# A mirror in the middle of its own update has lists that do not match yet.
fetch_package_list() {
    local again
    for again in 20 60 180 ''; do
        ! own_apt "$1" update || return 0
        [[ $again ]] || die "could not fetch or verify the package list of Debian $debian"
        say "no valid package list of Debian $debian, again in $again seconds"
        sleep "$again"
    done
}

# The package behind the kernel's metapackage, e.g. linux-image-6.1.0-40-cloud-arm64.
newest_kernel_package() {
    own_apt "$1" -s install --no-install-recommends "$kernel_package" 2>&1 |
        awk -v meta="$kernel_package" '$1 == "Inst" && $2 ~ /^linux-image-/ && $2 != meta { print $2; exit }'
}

unpack_sysroot() {
    local archive link package
    mkdir -p "$sysroot"/usr/{bin,lib,sbin} "$cache/control"
    for link in bin lib sbin; do
        ln -s "usr/$link" "$sysroot/$link"  # as base-files has it, which is not among the packages
    done
    for archive in "$1"/*.deb; do
        # Not dpkg -x: it would put a folder in the place of a link where Debian 12's packages still have /lib or /bin.
        dpkg-deb --fsys-tarfile "$archive" | tar -x -C "$sysroot" --keep-directory-symlink --no-same-owner
        package=$cache/control/$(dpkg-deb -f "$archive" Package)
        mkdir "$package"
        # Most packages have neither.
        dpkg-deb --ctrl-tarfile "$archive" | tar -x -C "$package" ./symbols ./shlibs 2>/dev/null || true
    done
    find "$cache/control" -empty -delete
    find "$sysroot" -type l -lname '/*' | while read -r link; do
        ln -sfnr "$sysroot$(readlink "$link")" "$link"  # an absolute link would leave the sysroot
    done
    # gtest's static library wants a libstdc++ at least as new as its own, which the cross compiler's may not be.
    ln -s libstdc++.so.6 "$sysroot/usr/lib/aarch64-linux-gnu/libstdc++.so"
}

cross_build() {
    # Run paths relative to the binary: the guest has the build folder in another place.
    cmake -S "$project" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$project/cmake/aarch64-linux-gnu.cmake" \
        -DCMAKE_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_BUILD_RPATH_USE_ORIGIN=ON >&2
    cmake --build "$build" --parallel "$(nproc)" >&2
}

# Copies what the guest needs of the project below $1, in the layout of the project.
copy_project() {
    local root=$1$guest_project guest_build folder
    guest_build=$root/$(basename "$build")
    mkdir -p "$guest_build/tests"
    # Only debug information goes: the names in these files are part of what is tested.
    aarch64-linux-gnu-strip --strip-debug -o "$guest_build/dump_server" "$build/dump_server"
    aarch64-linux-gnu-strip --strip-debug -o "$guest_build/tests/dump_server_tests" "$build/tests/dump_server_tests"
    for folder in tests/targets examples; do
        [[ ! -d $build/$folder ]] || tar -C "$build" -c --exclude=CMakeFiles --exclude='*.cmake' --exclude='*.[oa]' "$folder" |
            tar -C "$guest_build" -x
    done
}

# Prints the shared libraries and the program interpreter that the ELF files below $1 name.
needed_libraries() {
    find "$1" -type f -exec aarch64-linux-gnu-readelf -ldW {} + 2>/dev/null |
        sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p; s/.*program interpreter: .*\/\(.*\)\]/\1/p' | sort -u
}

# Adds libraries from the sysroot below $1 until nothing there needs another one.
copy_libraries() {
    local root=$1 name found=1
    mkdir -p "$root/usr/lib/aarch64-linux-gnu"
    while ((found)); do
        found=0
        while read -r name; do
            [[ -z $(find "$root" -name "$name" -print -quit) ]] || continue
            [[ -e $sysroot/usr/lib/aarch64-linux-gnu/$name ]] || die "Debian $debian's sysroot has no $name"
            cp -L "$sysroot/usr/lib/aarch64-linux-gnu/$name" "$root/usr/lib/aarch64-linux-gnu/"
            found=1
        done < <(needed_libraries "$root")
    done
    ln -s aarch64-linux-gnu/ld-linux-aarch64.so.1 "$root/usr/lib/ld-linux-aarch64.so.1"
    ln -s usr/lib "$root/lib"
}

# Writes the machine's root file system, with the command to run in it, to the archive $1.
make_initramfs() {
    local root=$work/root
    mkdir -p "$root"/{bin,etc,guest}
    install "$project/scripts/aarch64/init" "$root/init"
    install "$project/scripts/aarch64/syslog_check" "$root/guest/syslog_check"
    install "$cache/busybox" "$root/bin/busybox"
    arm-linux-gnueabihf-as -o "$work/arm_program.o" "$project/scripts/aarch64/arm_program.s"
    arm-linux-gnueabihf-ld -o "$root/guest/arm_program" "$work/arm_program.o"
    copy_project "$root"
    copy_libraries "$root"
    printf '%s\n' 'root:x:0:0:root:/root:/bin/sh' 'nobody:x:65534:65534:nobody:/var/empty:/bin/sh' >"$root/etc/passwd"
    printf '%s\n' 'root:x:0:' 'tty:x:5:' 'nogroup:x:65534:' >"$root/etc/group"
    echo '127.0.0.1 localhost aarch64-guest' >"$root/etc/hosts"
    [[ $mode == shell ]] && echo shell >"$root/guest/mode" || echo command >"$root/guest/mode"
    guest_command >"$root/guest/command"
    guest_settings >"$root/guest/settings"
    (cd "$root" && find . | cpio --quiet -o -H newc -R 0:0) >"$1"
}

guest_command() {
    if [[ $mode == run ]]; then
        echo "$run_command"
    else
        printf '%q ' "$guest_project/$(basename "$build")/tests/dump_server_tests" "${test_arguments[@]}"
        echo '&& sh /guest/syslog_check'
    fi
}

guest_settings() {
    echo "project=$guest_project/$(basename "$build")"
    if [[ $mode == shell ]]; then
        stty size | sed 's/\(.*\) \(.*\)/rows=\1\ncolumns=\2/'
    elif [[ -t 1 ]]; then
        echo GTEST_COLOR=yes
    fi
}

# Runs the machine. Its second serial line is this script's output, its first (kernel, status) is $1.
# Two serial lines, as their drivers are in every Debian kernel; those of the virtio console are modules in some.
# `max` has pointer authentication; the implementation-defined algorithm is far cheaper to emulate than the standard's.
emulate() {
    local serial=$1 initramfs=$2 command
    command=(qemu-system-aarch64 -M virt -cpu "max,pauth-impdef=on" -smp 2 -m 1024 -nic none -display none -no-reboot
        -kernel "$cache/vmlinuz" -initrd "$initramfs"
        -append "console=ttyAMA0 quiet loglevel=1 panic=-1"
        -serial "file:$serial" -device "pci-serial,chardev=output")
    if [[ $mode == shell ]]; then
        "${command[@]}" -chardev stdio,id=output,signal=off
    else
        # In the background so that the script's end ends the machine as well (see clean_up).
        timeout --kill-after=10 "$timeout_s" "${command[@]}" -chardev stdio,id=output </dev/null &
        machine=$!
        wait "$machine"
    fi
}

# Ends with the status the guest reported; without one the machine hung, panicked or did not start.
run_guest() {
    local serial=$work/serial status=0 guest_status
    : >"$serial"
    make_initramfs "$work/initramfs"
    emulate "$serial" "$work/initramfs" || status=$?
    machine=
    guest_status=$(tr -d '\r' <"$serial" | sed -n 's/^guest-status=//p' | tail -n 1)
    if [[ -z $guest_status ]]; then
        say "last lines of the machine's serial console:"
        tail -n 40 "$serial" | tr -d '\r' >&2
        ((status != 124)) || die "the machine was stopped after $timeout_s seconds"
        die "the machine ended without reporting a status (emulator status $status)"
    fi
    exit "$guest_status"
}

# shellcheck disable=SC2317  # called through the trap
clean_up() {
    [[ -z $machine ]] || kill "$machine" 2>/dev/null || true
    rm -rf "$work"
}

# shellcheck source=scripts/debian_archive.sh
. "$project/scripts/debian_archive.sh"
parse_arguments "$@"
keyring=/usr/share/keyrings/debian-archive-$codename-stable.gpg
install_host_packages
download_debian
[[ $mode != download ]] || { echo "$cache" && exit; }
cross_build
[[ $mode != build ]] || exit 0
machine=
work=$(mktemp -d)
trap clean_up EXIT
run_guest
