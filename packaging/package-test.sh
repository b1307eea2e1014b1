#!/usr/bin/env bash
# Installs the Debian packages into THIS SYSTEM and checks them the way a site
# uses them; meant for throw-away machines such as CI (./run.sh package-test).
#
#   packaging/package-test.sh [--keep] DIR
#
# DIR holds the .deb files. As root: apt-get installs them (and what they
# depend on), then
#   - every file of every package is in place and unchanged (dpkg --verify),
#     no program or library misses a library (ldd), the man pages hold their
#     exit codes and the bash completion loads;
#   - systemd-analyze verify accepts the unit;
#   - the server runs as its unit runs it: with systemctl where systemd is
#     PID 1, else in a container booted with systemd-nspawn from this system
#     (read-only below, changes in memory), else from the unit's lines with
#     setpriv as user kelda, the file system read-only but for the unit's
#     ReadWritePaths and a private /tmp; KELDA_PACKAGE_TEST_START=systemctl,
#     container or setpriv picks one;
#   - kelda put and kelda get, run as a user in the group kelda, store and
#     fetch two files whose bytes come back unchanged;
#   - a program builds against libkeldaclient-dev with CMake and pkg-config;
#   - removing keldaserver keeps the archive and its configuration, purging
#     deletes them; the other packages are purged too, unless --keep.
#
# systemd (for systemd-analyze) and systemd-container (for the container)
# are installed when missing. --put-get PORT is for the script itself: it
# runs the put and get check alone, inside the container.
#
# Exit codes: 0 all checks passed, 1 a check failed, 2 bad arguments or not
# root.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
keep=""
dir=""
put_get_port=""
while [ $# -gt 0 ]; do
    case "$1" in
        --keep) keep=1 ;;
        --put-get) put_get_port=${2:-}; shift ;;
        -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
        -*) echo "package-test: unknown option '$1'" >&2; exit 2 ;;
        *) dir=$1 ;;
    esac
    shift
done
if [ -z "$put_get_port" ] && { [ -z "$dir" ] || ! compgen -G "$dir/*.deb" >/dev/null; }; then
    echo "package-test: no .deb files in '${dir}'; usage: package-test.sh [--keep] DIR" >&2
    exit 2
fi
if [ "$(id -u)" -ne 0 ]; then
    echo "package-test: installs packages into the system, so it runs as root only" >&2
    exit 2
fi

packages=(libkeldaclient libkeldaclient-dev keldaserver kelda-tools)
unit=/lib/systemd/system/keldaserver.service
conf=/etc/keldaserver/keldaserver.conf
state=/var/lib/keldaserver
work=$(mktemp -d "${TMPDIR:-/tmp}/kelda-package-test.XXXXXX")
chmod 755 "$work"
export DEBIAN_FRONTEND=noninteractive

fail() {
    echo "package-test: FAILED: $*" >&2
    exit 1
}

step() {
    local begin=$SECONDS
    echo "== package-test: $1"
    "${@:2}"
    echo "== package-test: $1: ok ($((SECONDS - begin)) s)"
}

# ---- install and look at what is installed

install_packages() {
    if ! apt-get install -y -q --no-install-recommends --reinstall "$dir"/*.deb; then
        apt-get update -qq
        apt-get install -y -q --no-install-recommends --reinstall "$dir"/*.deb
    fi
}

check_files() {
    local package path
    for package in "${packages[@]}"; do
        dpkg-query -W -f='${Status}\n' "$package" | grep -qx 'install ok installed' ||
            fail "$package is not installed"
        [ -z "$(dpkg --verify "$package")" ] || fail "dpkg --verify $package: $(dpkg --verify "$package")"
        while read -r path; do
            [ -e "$path" ] || [ -L "$path" ] || fail "$package lists $path, which is missing"
        done < <(dpkg -L "$package")
    done
    local -a binaries=(/usr/bin/kelda /usr/bin/keldabrowser /usr/bin/keldaserver
                       /usr/lib/*/libkelda*.so.0 /usr/lib/*/libframework*.so.0)
    local missing binary
    missing=$(ldd "${binaries[@]}" | grep 'not found' || true)
    [ -z "$missing" ] || fail "libraries not found: $missing"
    # Found where the loader looks, not through a path of the build's.
    for binary in "${binaries[@]}"; do
        ! readelf -d "$binary" | grep -qE 'R(UN)?PATH' || fail "$binary carries a run path"
    done

    local uid
    uid=$(id -u kelda) || fail "no user kelda"
    [ "$uid" -lt 1000 ] || fail "kelda is not a system user (uid $uid)"
    [ "$(stat -c '%U:%G %a' "$state")" = "kelda:kelda 2770" ] ||
        fail "$state is $(stat -c '%U:%G %a' "$state"), not kelda:kelda 2770"
    dpkg-query -W -f='${Conffiles}\n' keldaserver | grep -q " $conf " || fail "$conf is no conffile"

    local page
    for page in /usr/share/man/man1/kelda.1.gz /usr/share/man/man1/keldabrowser.1.gz \
                /usr/share/man/man8/keldaserver.8.gz; do
        zcat "$page" | grep -q '^\.SS "Exit codes:"' || fail "$page does not list the exit codes"
    done
    zcat /usr/share/man/man1/kelda.1.gz | grep -q '^\.SS put$' || fail "kelda(1) does not describe put"
    bash -c 'source /usr/share/bash-completion/completions/kelda && complete -p kelda' >/dev/null ||
        fail "the bash completion does not register itself for kelda"
}

verify_unit() {
    local man=yes output
    command -v man >/dev/null || man=no
    output=$(systemd-analyze verify --man="$man" "$unit" 2>&1) || fail "systemd-analyze verify: $output"
    [ -z "$output" ] || fail "systemd-analyze verify: $output"
}

# ---- the server as its unit runs it

# The unit's value of KEY, e.g. unit_value ExecStart.
unit_value() {
    sed -n "s/^$1=//p" "$unit"
}

# Starts the server with systemctl; RUN is the command prefix that reaches
# the system (empty, or nsenter into the container). A runtime drop-in adds
# --listen with a free port after the configured options, so the port the
# server reports in the journal is the one to use.
start_with_systemctl() {
    local -a run=("$@")
    local options
    options=$("${run[@]}" sh -c ". $conf && printf %s \"\$KELDASERVER_OPTIONS\"")
    "${run[@]}" sh -c "mkdir -p /run/systemd/system/keldaserver.service.d /run/kelda-package-test &&
        printf 'KELDASERVER_OPTIONS=\"%s --listen 127.0.0.1:0\"\n' '$options' >/run/kelda-package-test/env &&
        printf '[Service]\nEnvironmentFile=/run/kelda-package-test/env\n' \
            >/run/systemd/system/keldaserver.service.d/package-test.conf &&
        systemctl daemon-reload && systemctl restart keldaserver.service" </dev/null
    local line="" invocation
    invocation=$("${run[@]}" systemctl show -p InvocationID --value keldaserver.service </dev/null)
    for _ in $(seq 100); do
        line=$("${run[@]}" journalctl -q -o cat "_SYSTEMD_INVOCATION_ID=$invocation" </dev/null |
            grep -m1 '^keldaserver listening on ' || true)
        [ -n "$line" ] && break
        sleep 0.1
    done
    [ -n "$line" ] || fail "no ready line in the journal: $("${run[@]}" systemctl status keldaserver.service </dev/null)"
    server_port=${line##*:}
    local pid
    pid=$("${run[@]}" systemctl show -p MainPID --value keldaserver.service </dev/null)
    echo "keldaserver.service runs as $("${run[@]}" ps -o user= -p "$pid" </dev/null), port $server_port"
}

stop_with_systemctl() {
    "$@" sh -c "systemctl stop keldaserver.service &&
        rm -rf /run/systemd/system/keldaserver.service.d/package-test.conf /run/kelda-package-test &&
        systemctl daemon-reload" </dev/null
}

# Without systemd: the unit's user, environment file, umask and command
# line, in a mount namespace of its own where the system is read-only but
# for the unit's ReadWritePaths, with a private /tmp, as ProtectSystem=strict
# and PrivateTmp=yes make it.
start_with_setpriv() {
    local user group exec_start umask writable path mounts=""
    user=$(unit_value User)
    group=$(unit_value Group)
    exec_start=$(unit_value ExecStart)
    umask=$(unit_value UMask)
    [ "$(unit_value EnvironmentFile)" = "$conf" ] || fail "the unit does not read $conf"
    [ "$(unit_value ProtectSystem)" = strict ] || fail "the unit does not set ProtectSystem=strict"
    writable=$(unit_value ReadWritePaths)
    for path in $writable; do
        path=${path#-}
        [ -d "$path" ] && mounts+="mount --bind $path $path; "
    done
    mounts+="mount -o remount,bind,ro /; mount -t tmpfs tmpfs /tmp; mount -t tmpfs tmpfs /var/tmp; "
    # The unit's command line, with the configured options word-split as
    # systemd splits an unbraced $VARIABLE.
    local command="umask $umask; set -a; . $conf; set +a; exec $exec_start --listen 127.0.0.1:0"
    unshare --mount --propagation private -- sh -c "$mounts exec setpriv --reuid=$user --regid=$group \
        --init-groups --no-new-privs --inh-caps=-all --bounding-set=-all -- env -i PATH=/usr/bin:/bin \
        HOME=$state USER=$user LOGNAME=$user sh -c '$command'" >"$work/server.log" 2>&1 &
    server_pid=$!
    local line=""
    for _ in $(seq 100); do
        line=$(grep -m1 '^keldaserver listening on ' "$work/server.log" || true)
        [ -n "$line" ] && break
        kill -0 "$server_pid" 2>/dev/null || fail "keldaserver ended: $(cat "$work/server.log")"
        sleep 0.1
    done
    [ -n "$line" ] || fail "no ready line within 10 s: $(cat "$work/server.log")"
    server_port=${line##*:}
    echo "keldaserver runs as $(ps -o user= -p "$server_pid"), port $server_port"
}

# unshare, setpriv, env and sh each replace themselves with the next, so
# the process started is the server.
stop_with_setpriv() {
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=""
}

# kelda put and get as a user of the archive: not root, in the group kelda,
# writing the group's files into the storage itself. Runs inside the system
# under test (package-test.sh --put-get PORT), so that in a container the
# files are the container's.
put_and_get() {
    local port=$1 files=$work/put-get
    mkdir -p "$files/in" "$files/out"
    head -c 1048576 /dev/urandom >"$files/in/recording.bin"
    printf 'stored by the package test\n' >"$files/in/notes.txt"
    chown -R nobody "$files/out"
    chmod -R a+rX "$files"
    local -a kelda=(setpriv --reuid=nobody --regid=nogroup --groups="$(getent group kelda | cut -d: -f3)"
        env -i PATH=/usr/bin:/bin HOME="$files/out" USER=packagetest KELDA_CONFIG_FILE="$files/none.ini"
        kelda --host 127.0.0.1 --port "$port")
    local urls guid
    urls=$("${kelda[@]}" put --type "Scan Recording" --name package-test "$files/in/recording.bin" \
        "$files/in/notes.txt" </dev/null) || fail "kelda put failed"
    guid=$(echo "$urls" | head -1 | cut -d/ -f4)
    [ -n "$guid" ] || fail "kelda put printed no URL: $urls"
    "${kelda[@]}" get "$guid" -o "$files/out/group" </dev/null || fail "kelda get $guid failed"
    "${kelda[@]}" get "$(echo "$urls" | head -1)" -o "$files/out/single.bin" </dev/null ||
        fail "kelda get of one file failed"
    cmp "$files/in/recording.bin" "$files/out/group/recording.bin" || fail "recording.bin came back changed"
    cmp "$files/in/notes.txt" "$files/out/group/notes.txt" || fail "notes.txt came back changed"
    cmp "$files/in/recording.bin" "$files/out/single.bin" || fail "the single file came back changed"
    local database
    database=$(find "$state" -name keldaserver.sqlite)
    [ "$(stat -c '%U %a' "$database")" = "kelda 640" ] ||
        fail "the database $database is $(stat -c '%U %a' "$database"), not kelda's and read-only to its group"
    echo "group $guid: 2 files stored and fetched back unchanged by a user in the group kelda"
}

# In a container booted from this system: the root is this file system
# below an overlay whose changes stay in memory, with a network of its own.
container_dir=""
container_pid=""

boot_container() {
    command -v systemd-nspawn >/dev/null ||
        apt-get install -y -q --no-install-recommends systemd-container >/dev/null || return 1
    container_dir=$work/container
    mkdir -p "$container_dir/changes" "$container_dir/root"
    if ! mount -t tmpfs tmpfs "$container_dir/changes"; then
        shutdown_container
        return 1
    fi
    mkdir "$container_dir/changes/upper" "$container_dir/changes/work"
    if ! mount -t overlay overlay \
            -o "lowerdir=/,upperdir=$container_dir/changes/upper,workdir=$container_dir/changes/work" \
            "$container_dir/root"; then
        echo "no overlay file system for a container"
        shutdown_container
        return 1
    fi
    # The checkout may lie where the container mounts a file system of its
    # own (a clone in /tmp, say): the part that runs inside goes in a copy.
    install -m 0755 "$here/packaging/package-test.sh" "$container_dir/root/usr/local/lib/kelda-package-test.sh"
    # A machine id of its own, and nothing started but what keldaserver
    # needs. Its network is a loopback device only, which no wait for the
    # network to come online would ever see.
    rm -f "$container_dir/root/etc/machine-id"
    local wait_online
    for wait_online in systemd-networkd-wait-online.service NetworkManager-wait-online.service; do
        ln -sf /dev/null "$container_dir/root/etc/systemd/system/$wait_online"
    done
    systemd-nspawn -q -D "$container_dir/root" --private-network --register=no --keep-unit \
        -M kelda-package-test -b -- --unit=basic.target >"$work/container.log" 2>&1 </dev/null &
    container_pid=$!
    local leader="" state=""
    for _ in $(seq 300); do
        leader=$(pgrep -P "$container_pid" || true)
        if [ -n "$leader" ]; then
            state=$(nsenter -t "$leader" -a systemctl is-system-running </dev/null 2>/dev/null || true)
            case "$state" in running|degraded) break ;; esac
        fi
        kill -0 "$container_pid" 2>/dev/null || break
        sleep 0.1
    done
    case "$state" in
        running|degraded) container_leader=$leader ;;
        *) echo "the container did not boot (${state:-no state}):"
           tail -20 "$work/container.log"
           shutdown_container
           return 1 ;;
    esac
}

shutdown_container() {
    if [ -n "$container_pid" ]; then
        kill "$container_pid" 2>/dev/null || true
        wait "$container_pid" 2>/dev/null || true
        container_pid=""
    fi
    if [ -n "$container_dir" ]; then
        umount "$container_dir/root" 2>/dev/null || true
        umount "$container_dir/changes" 2>/dev/null || true
        container_dir=""
    fi
}

server_pid=""
cleanup() {
    [ -n "$server_pid" ] && stop_with_setpriv
    shutdown_container
    rm -rf "$work"
}
trap cleanup EXIT

run_server() {
    local start=${KELDA_PACKAGE_TEST_START:-}
    if [ -z "$start" ]; then
        start=setpriv
        if [ -d /run/systemd/system ]; then
            start=systemctl
        elif boot_container; then
            start=container
        fi
    elif [ "$start" = container ]; then
        boot_container || fail "no container to start the server in"
    fi
    if [ "$start" = systemctl ]; then
        echo "systemd is PID 1: systemctl"
        start_with_systemctl
        put_and_get "$server_port"
        stop_with_systemctl
    elif [ "$start" = container ]; then
        echo "systemd in a container: systemctl there"
        local -a run=(nsenter -t "$container_leader" -a)
        start_with_systemctl "${run[@]}"
        "${run[@]}" bash /usr/local/lib/kelda-package-test.sh --put-get "$server_port" </dev/null
        stop_with_systemctl "${run[@]}"
        shutdown_container
    elif [ "$start" = setpriv ]; then
        echo "no systemd to start it: the unit's lines through setpriv"
        start_with_setpriv
        put_and_get "$server_port"
        stop_with_setpriv
    else
        fail "KELDA_PACKAGE_TEST_START wants systemctl, container or setpriv, not '$start'"
    fi
}

build_consumer() {
    cmake -DPREFIX=/usr -DCONSUMER_DIR="$here/framework/kelda/keldaclient/tests/package" \
        -DWORK_DIR="$work/consumer" -DCONFIG_FILE="$work/consumer/none.ini" -DCXX_COMPILER=c++ \
        -P "$here/cmake/TestPackage.cmake"
}

remove_and_purge() {
    apt-get remove -y -q keldaserver >/dev/null
    [ -d "$state" ] || fail "removing keldaserver deleted $state"
    [ -f "$conf" ] || fail "removing keldaserver deleted $conf"
    apt-get purge -y -q "${packages[@]}" >/dev/null
    [ ! -e "$state" ] || fail "purging keldaserver left $state"
    [ ! -e "$conf" ] || fail "purging keldaserver left $conf"
    ! dpkg-query -W -f='${db:Status-Abbrev}\n' "${packages[@]}" 2>/dev/null | grep -q '^[ir]' ||
        fail "packages are left after purging"
}

if [ -n "$put_get_port" ]; then
    put_and_get "$put_get_port"
    exit 0
fi

dir=$(cd "$dir" && pwd)
command -v systemd-analyze >/dev/null || apt-get install -y -q --no-install-recommends systemd >/dev/null

step "install ${packages[*]}" install_packages
step "files, libraries, user, man pages, completion" check_files
step "systemd-analyze verify" verify_unit
step "the server as its unit runs it, kelda put and get" run_server
step "a program built against libkeldaclient-dev" build_consumer
if [ -z "$keep" ]; then
    step "remove keeps the archive, purge deletes it" remove_and_purge
fi
echo "== package-test: all checks passed"
