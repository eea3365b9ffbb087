# Shared by scripts/test and scripts/demo: installs what the build needs, when missing.

# icu-devtools: uconv, with which the demo checks names for their decomposed form.
QVX_PACKAGES=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libbenchmark-dev
              libicu-dev nlohmann-json3-dev libcli11-dev icu-devtools)

qvx_ensure_packages() {
    local missing=()
    for p in "${QVX_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing packages: ${missing[*]} (run as root, or install them)" >&2
        return 1
    fi
    echo "installing: ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

qvx_build() {
    local preset=$1
    shift
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" "$@"
}
