# Shared by the scripts of this folder: install packages, configure, build, test. Sourced, not run.

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)

# What a build for each platform needs, as Debian 12 names it.
native_packages=(ca-certificates cmake ninja-build g++ googletest python3 pkg-config binutils curl netcat-openbsd
    socat libssl-dev openssl libcli11-dev libedit-dev)
# What the tests run besides.
test_packages=(ffmpeg tmux)
windows_packages=(g++-mingw-w64-x86-64-posix wine wine64 perl make)
clang_packages=(clang)
format_packages=(clang-format git)
fuzz_packages=(clang libclang-rt-14-dev)

say() { printf '\n== %s\n' "$*"; }

# Runs a command as root: directly, or through sudo.
as_root() {
    if [[ $(id -u) == 0 ]]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "Not root and no sudo: run this as root first: $*" >&2
        return 1
    fi
}

# Installs those of the named packages that are missing; asks nothing.
install_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg -s "$package" 2>/dev/null | grep -q '^Status: .* installed$' || missing+=("$package")
    done
    [[ ${#missing[@]} == 0 ]] && return
    say "Installing ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Configures and builds one preset under build/<preset>. Further arguments go to the build, e.g. --target X.
build() {
    local preset=$1
    shift
    local launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
    fi
    say "Building $preset in build/$preset"
    cmake --preset "$preset" "${launcher[@]}" >"$(log_file "$preset-configure")" ||
        { cat "$(log_file "$preset-configure")" >&2; return 1; }
    cmake --build --preset "$preset" -j "$jobs" "$@"
}

# Runs every test of one preset; the whole output is kept in build/<preset>-test.log.
run_tests() {
    local preset=$1
    say "Testing $preset"
    ctest --preset "$preset" -j 2 2>&1 | tee "$(log_file "$preset-test")"
}

log_file() {
    mkdir -p build
    echo "build/$1.log"
}

# Gives the tests a Windows of their own that ends with the script: a private prefix, one server that stays up
# between programs (each start is then a second faster), no dialogs and no debug output.
start_wine() {
    say "Starting wine in a prefix of its own"
    mkdir -p build
    WINEPREFIX=$(mktemp -d "$root/build/wine.XXXXXX")
    export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    unset DISPLAY
    trap stop_wine EXIT
    wineserver -p >/dev/null 2>&1
    wine wineboot --init >/dev/null 2>&1
}

stop_wine() {
    wineserver -k >/dev/null 2>&1 || true
    wineserver -w >/dev/null 2>&1 || true
    rm -rf "$WINEPREFIX"
}
