#!/usr/bin/env bash
# Entry point for developers and CI.
#
#   ./run.sh test    install what is missing, check the formatting of every
#                    C++ file against .clang-format, build, run every test
#                    (the server's end-to-end tests also on a throw-away
#                    PostgreSQL cluster; KELDA_REQUIRE_POSTGRES=1 is set, so
#                    they fail rather than skip without PostgreSQL)
#   ./run.sh format  reformat every C++ file with clang-format
#   ./run.sh test --sanitize=address
#                    the same with AddressSanitizer and UndefinedBehaviorSanitizer
#                    (clang, build dir build-asan)
#   ./run.sh test --sanitize=thread
#                    the same with ThreadSanitizer (clang, build-tsan); any
#                    report fails its test; orderings made inside Qt, which
#                    the checker cannot see, are suppressed by tsan.supp
#   ./run.sh build [--sanitize=...]   install what is missing and build
#   ./run.sh deps    only install the missing Debian packages
#   ./run.sh docs    install doxygen when missing and generate the API
#                    reference into build/docs/html (entry page index.html);
#                    fails on any doxygen warning, e.g. an undocumented
#                    public member
#   ./run.sh bench [--quick]
#                    release build (build-release), run every benchmark program,
#                    end with one table: figure, limit, ratio, target;
#                    bench_server over archives of 100,000 and 1,000,000
#                    groups (--quick: 1,000 and 2,000), also on a throw-away
#                    PostgreSQL cluster (pgbench -N first, then one server,
#                    two, and the large archives) when PostgreSQL is installed
#   ./run.sh fuzz SECONDS
#                    run each fuzz target that long from its seed corpus (clang,
#                    build-asan); a finding is saved below
#                    framework/kelda/fuzz/regressions/<target>/
#   ./run.sh demo    build kelda and keldaserver, store, list, fetch and verify files
#                    against a temporary server, check the copy, stop it
#   ./run.sh serve   start a server that stays up (PORT, default 5223;
#                    SERVE_DIR, default a temporary directory) for kelda
#   ./run.sh browse [--screenshot DIR]
#                    start a local server with sample groups and open
#                    keldabrowser on it; with --screenshot, render each
#                    dialog and the browser window into DIR as PNGs and exit
#   ./run.sh package build the Debian packages (build-package, optimised,
#                    stripped) into build-package/packages: libkeldaclient,
#                    libkeldaclient-dev, keldaserver, kelda-tools
#   ./run.sh package-test
#                    build the packages, then INSTALL THEM INTO THIS SYSTEM
#                    (root; apt-get) and check them: files, libraries, the
#                    server started as its unit starts it, kelda put and get
#                    against it, a program built against libkeldaclient-dev,
#                    remove and purge; for throw-away machines such as CI
#                    (packaging/package-test.sh --help says more)
#
# Environment: BUILD_DIR (default ./build, or the folder named above),
# BUILD_TYPE (default RelWithDebInfo), JOBS (default: number of cores),
# KELDA_WERROR (default ON). ccache is used when installed.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build_dir=${BUILD_DIR:-}
build_type=${BUILD_TYPE:-RelWithDebInfo}
jobs=${JOBS:-$(nproc)}
werror=${KELDA_WERROR:-ON}

packages=(
    g++ cmake ninja-build pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5sql5-sqlite
    libboost-dev
    # keldaserver expands compressed requests with a bounded zlib stream
    zlib1g-dev
    # keldaserver backup: SQLite's online backup, on the Qt driver's handle
    libsqlite3-dev
    # keldaserver on PostgreSQL: the Qt driver, libpq's headers (statements
    # go through libpq on the driver's connection), and the server programs
    # the tests start a throw-away cluster with
    libqt5sql5-psql libpq-dev postgresql
    # the shells whose completion scripts kelda prints, for their syntax check
    zsh fish
    # the TLS tests make their certificates with the openssl tool; the TLS
    # benchmark's raw floor is OpenSSL itself
    openssl libssl-dev
    # the formatting check of ./run.sh test
    clang-format
)
# Only for sanitizer and fuzz builds: clang with its sanitizer and libFuzzer
# runtimes, and llvm for the symbolizer that puts names into reports.
clang_packages=(clang libclang-rt-dev llvm)
# Only for the API reference.
docs_packages=(doxygen)
# Only for Debian packages: the man pages, dpkg-shlibdeps, and what CPack
# runs to find the programs' libraries.
package_packages=(help2man dpkg-dev file binutils)
# And for their test, which looks for processes by their parent.
package_test_packages=(procps)

sanitize=""
quick=""
cmake_extra=()

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

# use_clang_sanitizer address|thread: clang with that sanitizer, in its own
# build folder. The address build also holds the fuzz targets.
use_clang_sanitizer() {
    case "$1" in
        address) build_dir=${build_dir:-$here/build-asan}
                 cmake_extra+=(-DKELDA_SANITIZE=address -DKELDA_FUZZ=ON) ;;
        thread)  build_dir=${build_dir:-$here/build-tsan}
                 cmake_extra+=(-DKELDA_SANITIZE=thread) ;;
        *) echo "error: --sanitize wants address or thread, not '$1'" >&2; exit 64 ;;
    esac
    packages+=("${clang_packages[@]}")
    cmake_extra+=(-DCMAKE_CXX_COMPILER=clang++)
    sanitize=$1
}

# parse_options ARG...: the options after the command.
parse_options() {
    for arg in "$@"; do
        case "$arg" in
            --sanitize=*) use_clang_sanitizer "${arg#--sanitize=}" ;;
            --quick) quick=1 ;;
            *) echo "error: unknown option '$arg'; see ./run.sh --help" >&2; exit 64 ;;
        esac
    done
}

configure() {
    build_dir=${build_dir:-$here/build}
    local launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$here} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
    fi
    cmake -S "$here" -B "$build_dir" -G Ninja \
        -DCMAKE_BUILD_TYPE="$build_type" -DKELDA_WERROR="$werror" -DBUILD_TESTING=ON \
        "${launcher[@]}" ${cmake_extra[@]+"${cmake_extra[@]}"}
}

configure_and_build() {
    configure
    cmake --build "$build_dir" -j "$jobs"
}

# Sanitizer reports fail the test that triggers them: ThreadSanitizer stops
# the program at its first report with exit code 66.
export_sanitizer_options() {
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_init_order=1}
    export TSAN_OPTIONS=${TSAN_OPTIONS:-suppressions=$here/tsan.supp:second_deadlock_stack=1:halt_on_error=1:exitcode=66}
    export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$here/lsan.supp:print_suppressions=0}
}

# The C++ files git knows, or all of them outside a checkout.
cpp_files() {
    if git -C "$here" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git -C "$here" ls-files -z -- '*.cpp' '*.h'
    else
        (cd "$here" && find framework docs -name '*.cpp' -o -name '*.h' | tr '\n' '\0')
    fi
}

check_format() {
    if ! (cd "$here" && cpp_files | xargs -0 clang-format --dry-run --Werror); then
        echo "error: files above differ from .clang-format; ./run.sh format fixes them" >&2
        exit 1
    fi
}

run_tests() {
    if [ -n "$sanitize" ]; then
        export_sanitizer_options
    fi
    KELDA_REQUIRE_POSTGRES=1 QT_QPA_PLATFORM=offscreen ctest --test-dir "$build_dir" --output-on-failure -j "$jobs"
}

# Whether the PostgreSQL server programs are there (Debian keeps them off PATH).
have_postgres() {
    compgen -G '/usr/lib/postgresql/*/bin/initdb' >/dev/null || command -v initdb >/dev/null
}

# ---- docs: the API reference

run_docs() {
    configure
    # The reference's tour is a program; it must build before it is shown.
    cmake --build "$build_dir" -j "$jobs" --target kelda_tour
    cmake --build "$build_dir" --target docs
    echo "API reference: $build_dir/docs/html/index.html"
}

# ---- demo and serve: the command-line tool against a real server

build_programs() {
    configure
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
    echo "== kelda verify $guid (the server reads every file again)"
    "${kelda[@]}" verify "$guid"

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

# ---- browse: the dialogs against a server with sample groups

build_browser() {
    build_programs
    cmake --build "$build_dir" -j "$jobs" --target keldabrowser
    browser_bin="$build_dir/framework/kelda/keldabrowser/keldabrowser"
}

# seed_samples DIR: stores a few file groups of several types; all but the
# last move to central storage, since the quick mode lists central groups.
seed_samples() {
    local dir=$1 guid
    local kelda=("$kelda_bin" --host 127.0.0.1 --port "$server_port" --user sampler --team blue)
    mkdir -p "$dir"
    printf 'Scan of band 3, 2026-11-23\n' >"$dir/scan-notes.txt"
    head -c 65536 /dev/urandom >"$dir/scan.bin"
    head -c 32768 /dev/urandom >"$dir/voice.wav"
    printf 'P3\n1 1\n255\n0 128 255\n' >"$dir/site.ppm"
    printf '<decoded><line>CQ CQ DE TEST</line></decoded>\n' >"$dir/decoded.xml"
    printf 'Draft findings\n' >"$dir/draft.txt"

    local -a samples=(
        "Scan Recording|band-3 sweep|1.0|first pass|band 3|scan-notes.txt scan.bin"
        "Audio Recording|voice log|2.1|operator call|channel 7|voice.wav"
        "Image|site photo|1.0|north mast||site.ppm"
        "Decoded Text (XML)|decoded burst|1.0|decoder run 12|burst 4|decoded.xml"
        "Report Fragment|draft report|0.1|not yet central||draft.txt"
    )
    local count=${#samples[@]} i=0 sample type name version comment detail files
    for sample in "${samples[@]}"; do
        IFS='|' read -r type name version comment detail files <<<"$sample"
        local paths=()
        for f in $files; do paths+=("$dir/$f"); done
        guid=$("${kelda[@]}" put --type "$type" --name "$name" --version "$version" \
            --comment "$comment" --detail "$detail" "${paths[@]}" | head -n1 | cut -d/ -f4)
        i=$((i + 1))
        if [ "$i" -lt "$count" ]; then
            "${kelda[@]}" move "$guid" >/dev/null
        fi
        echo "stored \"$name\" ($type) as $guid$([ "$i" -lt "$count" ] && echo ', central')"
    done
}

run_browse() {
    local screenshot=""
    while [ $# -gt 0 ]; do
        case "$1" in
            --screenshot)
                [ $# -ge 2 ] || { echo "error: --screenshot needs a folder" >&2; exit 64; }
                screenshot=$2
                shift 2
                ;;
            *)
                echo "error: browse takes only --screenshot DIR, not '$1'" >&2
                exit 64
                ;;
        esac
    done
    browse_dir=$(mktemp -d "${TMPDIR:-/tmp}/kelda-browse.XXXXXX")
    trap 'stop_server; rm -rf "$browse_dir"' EXIT
    trap 'exit 130' INT TERM
    export KELDA_CONFIG_FILE="$browse_dir/kelda.ini"
    start_server "$browse_dir/server" 127.0.0.1:0
    echo "== keldaserver listening on 127.0.0.1:$server_port"
    seed_samples "$browse_dir/samples"
    local browser=("$browser_bin" --host 127.0.0.1 --port "$server_port")
    if [ -n "$screenshot" ]; then
        "${browser[@]}" --screenshot "$screenshot"
        echo "== pictures in $screenshot"
    else
        echo "== keldabrowser (close its window to stop the server)"
        "${browser[@]}"
    fi
}


# ---- bench and fuzz

# print_table FILE: the "table" lines the benchmark programs printed, as one
# table. Each line: table<TAB>figure<TAB>measured<TAB>limit<TAB>ratio<TAB>target.
print_table() {
    echo
    echo "== summary ($(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1))"
    awk -F '\t' '
        BEGIN { printf "%-66s %-22s %-28s %-8s %s\n", "figure", "measured", "limit (same run)", "ratio", "target" }
        $1 == "table" { printf "%-66s %-22s %-28s %-8s %s\n", $2, $3, $4, $5, $6 }' "$1"
}

run_bench() {
    build_dir=${build_dir:-$here/build-release}
    build_type=${BUILD_TYPE:-Release}
    configure
    local programs=(bench_protocol bench_replyparse bench_framing bench_roundtrip)
    if [ -d "$here/framework/kelda/keldaserver" ]; then
        programs+=(bench_server bench_cli bench_checksum)
    fi
    cmake --build "$build_dir" -j "$jobs" --target "${programs[@]}"
    local rows status=0
    # The server's figures over a million groups; the short run keeps to
    # a few thousand.
    local server_scale=(--groups 1000000)
    if [ -n "$quick" ]; then
        server_scale=(--quick)
    fi
    rows=$(mktemp "${TMPDIR:-/tmp}/kelda-bench.XXXXXX")
    for p in "${programs[@]}"; do
        local arguments=(${quick:+--quick})
        if [ "$p" = bench_server ]; then
            arguments=("${server_scale[@]}")
        fi
        echo "== $p ${arguments[*]}"
        if ! "$build_dir/framework/kelda/benchmarks/$p" ${arguments[@]+"${arguments[@]}"} | tee -a "$rows"; then
            echo "error: $p failed" >&2
            status=1
        fi
    done
    if [[ " ${programs[*]} " == *" bench_server "* ]] && have_postgres; then
        echo "== bench_server --postgres ${server_scale[*]} (pgbench -N on the same cluster first)"
        if ! "$build_dir/framework/kelda/benchmarks/bench_server" --postgres "${server_scale[@]}" | tee -a "$rows"; then
            echo "error: bench_server --postgres failed" >&2
            status=1
        fi
    fi
    print_table "$rows"
    rm -f "$rows"
    return $status
}

# ---- package: Debian packages

run_package() {
    build_dir=${build_dir:-$here/build-package}
    # Debian's own optimisation (-O2 -g); CPack strips the programs.
    cmake_extra+=(-DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr -DKELDA_DEBIAN_PACKAGES=ON)
    configure
    cmake --build "$build_dir" -j "$jobs"
    rm -rf "$build_dir/packages"
    (cd "$build_dir" && cpack -B "$build_dir/packages")
    rm -rf "$build_dir/packages/_CPack_Packages"
    echo "== packages in $build_dir/packages:"
    ls -1 "$build_dir/packages"/*.deb
}

fuzz_targets=(fuzz_framer fuzz_replydispatch fuzz_filegroupdata fuzz_requestreader)

run_fuzz() {
    local seconds=${1:-}
    if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
        echo "error: ./run.sh fuzz wants the seconds per target, e.g. ./run.sh fuzz 60" >&2
        exit 64
    fi
    use_clang_sanitizer address
    install_missing
    configure
    cmake --build "$build_dir" -j "$jobs" --target fuzzers
    export_sanitizer_options
    local fuzz_dir=$here/framework/kelda/fuzz summary="" status=0
    for target in "${fuzz_targets[@]}"; do
        local program=$build_dir/framework/kelda/fuzz/$target
        [ -x "$program" ] || continue
        local found=$build_dir/fuzz-corpus/$target regressions=$fuzz_dir/regressions/$target
        local log=$build_dir/fuzz-corpus/$target.log
        mkdir -p "$found" "$regressions"
        echo "== $target: $seconds s"
        local result=ok
        # New inputs go to the build folder; the tree keeps the seeds and
        # the regression inputs, and a finding lands with the latter.
        if ! KELDA_TRACE_MASK=0 "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
                -print_final_stats=1 -artifact_prefix="$regressions/" \
                "$found" "$fuzz_dir/corpus/$target" "$regressions" >"$log" 2>&1; then
            result="FINDING, see $log and $regressions/"
            status=1
            tail -40 "$log" >&2
        fi
        rmdir "$regressions" 2>/dev/null || true
        local runs
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
        summary+=$(printf '%-22s %12s executions  %s' "$target" "${runs:-?}" "$result")$'\n'
    done
    echo
    printf '%s' "$summary"
    return $status
}

command=${1:-}
shift || true
case "$command" in
    test)
        parse_options "$@"
        install_missing
        check_format
        configure_and_build
        run_tests
        ;;
    build)
        parse_options "$@"
        install_missing
        configure_and_build
        ;;
    deps)
        install_missing
        ;;
    format)
        install_missing
        (cd "$here" && cpp_files | xargs -0 clang-format -i)
        ;;
    docs)
        packages+=("${docs_packages[@]}")
        install_missing
        run_docs
        ;;
    bench)
        parse_options "$@"
        install_missing
        run_bench
        ;;
    fuzz)
        run_fuzz "$@"
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
    browse)
        install_missing
        build_browser
        run_browse "$@"
        ;;
    package)
        packages+=("${package_packages[@]}")
        install_missing
        run_package
        ;;
    package-test)
        packages+=("${package_packages[@]}" "${package_test_packages[@]}")
        install_missing
        run_package
        "$here/packaging/package-test.sh" "$build_dir/packages"
        ;;
    -h|--help|help)
        usage
        ;;
    *)
        usage >&2
        exit 64
        ;;
esac
