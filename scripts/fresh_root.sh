# shellcheck shell=bash
# Fresh, minimal Debian systems (mmdebstrap), each a folder with its own mounts and processes, from the archive that this
# system's own packages come from. Sourced by those who check something in one; they have die().

. scripts/debian_archive.sh

# debian_codename 12|13
debian_codename() {
    case $1 in
        12) echo bookworm ;;
        13) echo trixie ;;
        *) die "12 or 13, not '$1'" ;;
    esac
}

# unpack_fresh_root CODENAME NAME FOLDER [PACKAGE...]: kept as an archive, as it takes minutes to fetch
unpack_fresh_root() {
    local codename=$1 folder=$3 packages base archive
    packages=$(IFS=, && echo "${*:4}")
    base=.cache/fresh-root/$2-$(cksum <<<"$packages" | cut -d ' ' -f 1)
    if [[ ! -e $base.tar ]]; then
        archive=$(archive_address)
        mkdir -p .cache/fresh-root
        mmdebstrap --quiet --variant=minbase --architectures="$(dpkg --print-architecture)" ${packages:+"--include=$packages"} \
            "$codename" "$base.new.tar" \
            "deb [signed-by=/usr/share/keyrings/debian-archive-$codename-stable.gpg] $archive $codename main"
        mv "$base.new.tar" "$base.tar"
    fi
    mkdir "$folder"
    tar -C "$folder" -xf "$base.tar"
    # A machine's postinst starts daemons; this folder is none.
    printf '#!/bin/sh\nexit 101\n' >"$folder/usr/sbin/policy-rc.d"
    chmod 755 "$folder/usr/sbin/policy-rc.d"
    [[ ! -e /etc/resolv.conf ]] || cp -L /etc/resolv.conf "$folder/etc/resolv.conf"
}

# run_in_root FOLDER COMMAND...
run_in_root() {
    # The last process of the namespace is its first: all others end with it. The bind makes the folder a mount of its own,
    # as a root is.
    # shellcheck disable=SC2016  # expanded inside
    unshare --mount --pid --fork --kill-child bash -c '
        mount --bind "$1" "$1" && mount -t proc proc "$1/proc" && mount --rbind /dev "$1/dev" && mount -t tmpfs tmpfs "$1/tmp" &&
            exec chroot "$@"' - "$@"
}
