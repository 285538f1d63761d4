# Installs Debian packages that are missing; sourced by the scripts beside this folder.

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# install_packages NAME...: asks apt only for what dpkg does not have yet.
install_packages() {
    local missing=()
    local name
    for name in "$@"; do
        if ! dpkg-query -W -f '${db:Status-Abbrev}' "$name" 2>/dev/null | grep -q '^ii'; then
            missing+=("$name")
        fi
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "Installing ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# install_non_free_packages NAME...: the same for packages of Debian's non-free component, which
# a fresh machine does not list. The component is added beside the machine's own sources.
install_non_free_packages() {
    local sources=/etc/apt/sources.list.d/debian.sources
    local added=/etc/apt/sources.list.d/vzdefrag-non-free.sources
    if ! apt-cache show "$1" >/dev/null 2>&1 && [ -e "$sources" ] && [ ! -e "$added" ]; then
        sed 's/^Components:.*/Components: non-free/' "$sources" | as_root tee "$added" >/dev/null
        as_root apt-get update -qq
    fi
    install_packages "$@"
}

# Where fsck.hfsplus lies, or nothing.
find_fsck() {
    PATH="$PATH:/usr/sbin:/sbin" command -v fsck.hfsplus || true
}
