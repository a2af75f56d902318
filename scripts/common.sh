# Shared by the scripts: messages, and the Debian packages that they need. Sourced, not run.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build_packages=(g++ cmake ninja-build pkg-config libfuse-dev fuse3 libcurl4-openssl-dev libcjson-dev libevent-dev
    uthash-dev libutf8proc-dev libmicrohttpd-dev libgnutls28-dev)
test_packages=(libgtest-dev libbenchmark-dev clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev git rsync
    sqlite3 openssl ca-certificates gobjc++ libgnustep-base-dev libicu-dev unicode-data bzip2 python3)
soak_packages=(fio stress-ng)

say() { printf '== %s\n' "$*"; }
fail() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Installs the named packages that are missing.
need_packages() {
    command -v dpkg-query >/dev/null || { say "no Debian package tools here; make sure that these are installed: $*"; return 0; }
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    local root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "these packages are missing, and neither root nor sudo is there to install them: ${missing[*]}"
        root=(sudo)
    fi
    "${root[@]}" apt-get update -q >/dev/null || fail "apt-get update failed"
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}" >/dev/null ||
        fail "could not install ${missing[*]}"
}

# Configures and builds a preset.
build_preset() {
    say "building ($1)"
    (cd "$top" && cmake --preset "$1" >/dev/null && cmake --build --preset "$1" -- --quiet) ||
        fail "the build ($1) failed"
}
