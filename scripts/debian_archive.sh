# shellcheck shell=bash
# The Debian archive that this system's own packages come from. Sourced by those who fetch other releases or machines from
# it; they have die().

# shellcheck disable=SC1091  # a file of the system
own_codename() (. /etc/os-release && echo "${VERSION_CODENAME-}")

# Whatever form apt's sources are written in.
archive_address() {
    local address
    # shellcheck disable=SC2016  # $(...) is apt's own notation
    address=$(apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
        awk -v release="$(own_codename)" '$1 == release && $2 == "main" { print $3; exit }')
    [[ $address ]] || die "no Debian archive among this system's apt sources"
    echo "$address"
}
