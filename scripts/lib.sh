# Shared by the scripts: installs what the build needs, when missing.

# icu-devtools: uconv, with which the demo checks names for their decomposed form. libplist:
# the packaging tests read the macOS property lists with it.
QVX_PACKAGES=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libbenchmark-dev
              libicu-dev nlohmann-json3-dev libcli11-dev icu-devtools libplist-dev)
# The macOS build: clang 19 for Apple's headers, llvm 19's Mach-O tools (npm, which fetches
# zig, is installed only where no npm is on the PATH: nodejs may bring its own).
QVX_MACOS_PACKAGES=(cmake ninja-build clang-19 llvm-19)

# Installs the packages named (default: QVX_PACKAGES).
qvx_ensure_packages() {
    local wanted=("$@")
    [ ${#wanted[@]} -eq 0 ] && wanted=("${QVX_PACKAGES[@]}")
    local missing=()
    for p in "${wanted[@]}"; do
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
