# Sourced by the other scripts: installs the Debian packages that they need.

BUILD_PACKAGES=(g++ make cmake pkg-config libcjson-dev uuid-dev libblkid-dev libcli11-dev
    libfmt-dev nlohmann-json3-dev)
TEST_PACKAGES=(libgtest-dev libpugixml-dev mount e2fsprogs nodejs tzdata)

# install_packages NAME...: says which of the packages are missing and installs them.
install_packages() {
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed ||
            missing+=("$name")
    done
    [ "${#missing[@]}" -eq 0 ] && return
    echo "Installing missing Debian packages: ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            echo "Neither root nor sudo here; please install them and start again." >&2
            exit 1
        }
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
