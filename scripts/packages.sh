# Sourced by the other scripts: installs the Debian packages that they need.

BUILD_PACKAGES=(g++ make cmake pkg-config libcjson-dev uuid-dev libblkid-dev libaio-dev
    libcli11-dev libfmt-dev nlohmann-json3-dev libsqlite3-dev libzstd-dev)
TEST_PACKAGES=(libgtest-dev libpugixml-dev mount e2fsprogs gddrescue nodejs tzdata zstd)

# as_root COMMAND...
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
        return
    fi
    command -v sudo >/dev/null || {
        echo "Neither root nor sudo here; please install them and start again." >&2
        exit 1
    }
    sudo "$@"
}

# install_packages NAME...: says which of the packages are missing and installs them.
install_packages() {
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed ||
            missing+=("$name")
    done
    [ "${#missing[@]}" -eq 0 ] && return
    echo "Installing missing Debian packages: ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Installs DuckDB, which Debian does not have, as its package for Node.js, and names that in
# ZU_TIER_DUCKDB. Without npm and its registry the tests do without it.
install_duckdb() {
    local to=$PWD/build/duckdb
    if [ ! -d "$to/node_modules" ]; then
        command -v npm >/dev/null || return 0
        timeout 120 npm install --prefix "$to" --no-audit --no-fund --silent \
            @duckdb/node-api@1.5.6-r.1 >/dev/null 2>&1 || return 0
    fi
    export ZU_TIER_DUCKDB=$to/node_modules/@duckdb/node-api
}
