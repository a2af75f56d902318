# Shared by the scripts, which source it first: help, messages, packages, builds, and long commands with their logs.
# shellcheck shell=bash disable=SC2034

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
logs=$top/build/logs
export LC_ALL=C.UTF-8

build_packages=(g++ cmake ninja-build pkg-config libfuse-dev fuse3 libcurl4-openssl-dev libcjson-dev libevent-dev
    uthash-dev libutf8proc-dev libmicrohttpd-dev libgnutls28-dev libcrypt-dev)
# clang and its tools in the release's own version.
test_packages=(clang clang-tidy libclang-rt-dev git rsync sqlite3 openssl
    ca-certificates curl gobjc++ libgnustep-base-dev python3)
format_packages=(clang-format shellcheck flake8)
soak_packages=(fio stress-ng)

say() { printf '== %s\n' "$*"; }
fail() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Refuses a command line.
reject() { printf '%s: %s\nTry: %s --help\n' "${0##*/}" "$*" "$0" >&2; exit 2; }

# If the arguments ask for help, prints the comment at the top of the script and ends.
offer_help() {
    case " $* " in
    *' -h '* | *' --help '*) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    esac
}

# However a script ends, it first ends the command that it waits for and then calls its own clean_up, if it has one.
job=
at_exit() {
    local status=$?
    trap '' HUP INT PIPE TERM
    [ -z "$job" ] || { kill -TERM -- "-$job"; wait "$job"; } 2>/dev/null
    ! declare -F clean_up >/dev/null || clean_up "$status"
    exit "$status"
}
trap at_exit EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 141' PIPE
trap 'exit 143' TERM

# Whether this user can mount a disk here.
has_fuse() { [ -c /dev/fuse ] && { : <>/dev/fuse; } 2>/dev/null; }

# Removes a directory and unmounts what is below it, the deepest first; the daemon of a disk ends with the unmount.
remove_with_mounts() {
    awk -v root="$1" '$2 == root || index($2, root "/") == 1 { print $2 }' /proc/self/mounts | tac |
        while read -r point; do fusermount -u -z -q "$(printf '%b' "$point")"; done
    rm -rf --one-file-system "$1"
}

# Runs a command with its output in build/logs/NAME.log: logged NAME COMMAND... It is a job in a process group of its
# own, so that a signal to this script is handled at once. On a terminal the last line of the log is shown meanwhile. If
# the command fails, its last output is shown, and the script ends.
logged() {
    local name=$1 log=$logs/$1.log status
    shift
    mkdir -p "$logs" && : >"$log" || fail "cannot write $log"
    set -m
    "$@" </dev/null >"$log" 2>&1 &
    job=$!
    set +m
    while [ -t 1 ] && kill -0 "$job" 2>/dev/null; do
        printf '\r\033[K%.79s' "$(tail -n 1 "$log")"
        sleep 0.2
    done
    [ ! -t 1 ] || printf '\r\033[K'
    wait "$job"
    status=$?
    job=
    [ "$status" -eq 0 ] && return
    tail -n 100 "$log" >&2
    fail "$name failed; the whole output is in $log"
}

# Installs the named packages that are missing. Servers among them do not start, now or when the machine starts.
need_packages() {
    command -v dpkg-query >/dev/null || { say "this is not Debian; make sure that these are installed: $*"; return 0; }
    local missing root=(env) log=$logs/packages.log
    mapfile -t missing < <(printf '%s\n' "$@" | grep -vxF -f <(
        dpkg-query -W -f '${Package} ${Status}\n' "$@" 2>/dev/null | sed -n 's/ install ok installed$//p'))
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    [ "$(id -u)" -eq 0 ] || root=(sudo env)
    command -v "${root[0]}" >/dev/null || fail "only root can install packages, and sudo is missing; run this as root:
apt-get install --no-install-recommends ${missing[*]}"
    mkdir -p "$logs"
    # Settings that somebody has changed stay as they are, without a question.
    # shellcheck disable=SC2016
    local install='
        units() { systemctl --root=/ list-unit-files --state=enabled --no-legend 2>/dev/null | cut -d" " -f1 | sort; }
        policy=/usr/sbin/policy-rc.d before=$(units)
        trap "exit 130" HUP INT PIPE TERM # these would skip the trap of EXIT
        [ -e $policy ] || { trap "rm $policy" EXIT && printf "#!/bin/sh\nexit 101\n" >$policy && chmod 755 $policy; }
        apt-get update -q && apt-get install -qy --no-install-recommends \
            -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "$@" || exit
        units | grep -vxF "${before:-none}" | xargs -r systemctl --root=/ disable'
    "${root[@]}" DEBIAN_FRONTEND=noninteractive sh -c "$install" sh "${missing[@]}" 2>&1 </dev/null |
        if [ -t 1 ]; then tee "$log"; else cat >"$log"; fi
    [ "${PIPESTATUS[0]}" -eq 0 ] ||
        { tail -n 5 "$log" >&2; fail "the packages cannot be installed; the whole output is in $log"; }
}

# Configures and builds a preset.
build_preset() {
    say "building ($1)"
    logged "build-$1" sh -c 'cd "$1" && cmake --preset "$2" && cmake --build --preset "$2"' sh "$top" "$1"
}
