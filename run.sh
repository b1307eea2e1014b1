#!/usr/bin/env bash
# Entry point for developers and CI.
#
#   ./run.sh test    install what is missing, build, run every test
#   ./run.sh build   install what is missing and build
#   ./run.sh deps    only install the missing Debian packages
#   ./run.sh demo    build kelda and keldaserver, store, list and fetch files
#                    against a temporary server, check the copy, stop it
#   ./run.sh serve   start a server that stays up (PORT, default 5223;
#                    SERVE_DIR, default a temporary directory) for kelda
#
# Environment: BUILD_DIR (default ./build), BUILD_TYPE (default RelWithDebInfo),
# JOBS (default: number of cores), KELDA_WERROR (default ON).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build_dir=${BUILD_DIR:-$here/build}
build_type=${BUILD_TYPE:-RelWithDebInfo}
jobs=${JOBS:-$(nproc)}
werror=${KELDA_WERROR:-ON}

packages=(
    g++ cmake ninja-build pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5sql5-sqlite
    libboost-dev
)

usage() {
    sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'
}

install_missing() {
    local missing=()
    for p in "${packages[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$p")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        echo "error: packages are missing and this is not root; install them: apt-get install ${missing[*]}" >&2
        exit 2
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

configure_and_build() {
    cmake -S "$here" -B "$build_dir" -G Ninja \
        -DCMAKE_BUILD_TYPE="$build_type" -DKELDA_WERROR="$werror" -DBUILD_TESTING=ON
    cmake --build "$build_dir" -j "$jobs"
}

run_tests() {
    QT_QPA_PLATFORM=offscreen ctest --test-dir "$build_dir" --output-on-failure -j "$jobs"
}

# ---- demo and serve: the command-line tool against a real server

build_programs() {
    cmake -S "$here" -B "$build_dir" -G Ninja \
        -DCMAKE_BUILD_TYPE="$build_type" -DKELDA_WERROR="$werror" -DBUILD_TESTING=ON
    cmake --build "$build_dir" -j "$jobs" --target kelda keldaserver
    kelda_bin="$build_dir/framework/kelda/keldacli/kelda"
    server_bin="$build_dir/framework/kelda/keldaserver/keldaserver"
}

# start_server DIR LISTEN: starts keldaserver with its storage in DIR and
# sets server_pid and server_port from its ready line.
start_server() {
    local dir=$1 listen=$2 line=""
    mkdir -p "$dir/archive" "$dir/nas"
    "$server_bin" --listen "$listen" --base-path "$dir/archive" --db "$dir/kelda.db" \
        --nas-path "$dir/nas" >"$dir/server.log" 2>&1 &
    server_pid=$!
    for _ in $(seq 100); do
        line=$(grep -m1 '^keldaserver listening on ' "$dir/server.log" || true)
        [ -n "$line" ] && break
        if ! kill -0 "$server_pid" 2>/dev/null; then
            cat "$dir/server.log" >&2
            echo "error: keldaserver did not start" >&2
            server_pid=""
            return 1
        fi
        sleep 0.1
    done
    if [ -z "$line" ]; then
        echo "error: keldaserver printed no ready line within 10 s; its log: $dir/server.log" >&2
        return 1
    fi
    server_port=${line##*:}
}

stop_server() {
    if [ -n "${server_pid:-}" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
        server_pid=""
    fi
}

run_demo() {
    # Global, so that the exit trap still knows it after this function.
    demo_dir=$(mktemp -d "${TMPDIR:-/tmp}/kelda-demo.XXXXXX")
    local dir=$demo_dir
    trap 'stop_server; rm -rf "$demo_dir"' EXIT
    trap 'exit 130' INT TERM
    # No user configuration leaks into the demo.
    export KELDA_CONFIG_FILE="$dir/kelda.ini"
    start_server "$dir/server" 127.0.0.1:0
    echo "== keldaserver listening on 127.0.0.1:$server_port (storage in $dir/server)"
    local kelda=("$kelda_bin" --host 127.0.0.1 --port "$server_port" --user demo)

    mkdir -p "$dir/in" "$dir/out"
    printf 'Scan of 2026-11-23, band 3\n' >"$dir/in/notes.txt"
    printf '<report><finding id="1">carrier at 433.92 MHz</finding></report>\n' >"$dir/in/report.xml"
    head -c 3145728 /dev/urandom >"$dir/in/recording.bin"

    echo "== kelda put (three files, one group)"
    local urls
    urls=$("${kelda[@]}" put --type "Scan Recording" --name demo-scan --version 1.0 \
        --comment "stored by ./run.sh demo" --detail "band 3" --lifecycle-days 7 \
        "$dir/in/notes.txt" "$dir/in/recording.bin" "$dir/in/report.xml")
    echo "$urls"
    local recording_url guid
    recording_url=$(echo "$urls" | sed -n 2p)
    guid=$(echo "$recording_url" | cut -d/ -f4)

    echo "== kelda ls"
    "${kelda[@]}" ls
    echo "== kelda files $guid"
    "${kelda[@]}" files "$guid"
    echo "== kelda get $recording_url"
    "${kelda[@]}" get "$recording_url" -o "$dir/out/recording.bin"
    cmp "$dir/in/recording.bin" "$dir/out/recording.bin"
    echo "fetched copy is byte-identical ($(stat -c %s "$dir/out/recording.bin") bytes)"
    echo "== kelda info $guid"
    "${kelda[@]}" info "$guid"

    stop_server
    echo "== demo finished: server stopped"
}

run_serve() {
    local dir=${SERVE_DIR:-} port=${PORT:-5223}
    if [ -z "$dir" ]; then
        dir=$(mktemp -d "${TMPDIR:-/tmp}/kelda-serve.XXXXXX")
    fi
    trap 'stop_server' EXIT
    trap 'exit 0' INT TERM
    start_server "$dir" "127.0.0.1:$port"
    cat <<EOT
keldaserver listening on 127.0.0.1:$server_port, storage in $dir
In another shell:
  export PATH="$(dirname "$kelda_bin"):\$PATH"
  kelda --host 127.0.0.1 --port $server_port put some.file
  kelda --host 127.0.0.1 --port $server_port ls
or put the server in the configuration (${KELDA_CONFIG_FILE:-~/.config/kelda/kelda.ini}):
  [KELDA]
  ServerHost=127.0.0.1
  XmlPort=$server_port
Press Ctrl-C to stop the server.
EOT
    wait "$server_pid"
}

case "${1:-}" in
    test)
        install_missing
        configure_and_build
        run_tests
        ;;
    build)
        install_missing
        configure_and_build
        ;;
    deps)
        install_missing
        ;;
    demo)
        install_missing
        build_programs
        run_demo
        ;;
    serve)
        install_missing
        build_programs
        run_serve
        ;;
    -h|--help|help)
        usage
        ;;
    *)
        usage >&2
        exit 64
        ;;
esac
