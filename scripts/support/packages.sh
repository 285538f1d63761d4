# Installs Debian packages that are missing; sourced by the scripts beside this folder.

# What every configuration with GCC takes.
# shellcheck disable=SC2034 # used by the scripts that source this
build_packages=(cmake g++ libcli11-dev libgtest-dev libncurses-dev libplist-dev libssl-dev ninja-build
    nlohmann-json3-dev pkg-config python3 zstd)

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

# has_candidate NAME: whether apt could install the package from the components it knows.
has_candidate() {
    apt-cache policy "$1" 2>/dev/null | grep -q '^  Candidate: [^(]'
}

# install_non_free_packages NAME...: the same for packages of Debian's non-free component, which
# a fresh machine does not list. The component is added beside the machine's own sources.
install_non_free_packages() {
    local sources=/etc/apt/sources.list.d
    if ! has_candidate "$1"; then
        if [ -e "$sources/debian.sources" ]; then
            sed 's/^Components:.*/Components: non-free/' "$sources/debian.sources" |
                as_root tee "$sources/vzdefrag-non-free.sources" >/dev/null
        else
            sed -n 's/^\(deb .*\) main.*/\1 non-free/p' /etc/apt/sources.list |
                as_root tee "$sources/vzdefrag-non-free.list" >/dev/null
        fi
        as_root apt-get update -qq
    fi
    install_packages "$@"
}

# Where fsck.hfsplus lies, or nothing.
find_fsck() {
    PATH="$PATH:/usr/sbin:/sbin" command -v fsck.hfsplus || true
}

# Debian's flags for hardened programs, for what is configured from then on (package dpkg-dev).
use_package_flags() {
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    # CMake knows no flags for the preprocessor alone.
    CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
    LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
    export CXXFLAGS LDFLAGS
}
