#!/usr/bin/env bash
# Entry point for developers and CI.
#
#   ./run.sh test    install what is missing, build, run every test
#   ./run.sh build   install what is missing and build
#   ./run.sh deps    only install the missing Debian packages
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
    sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'
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
    -h|--help|help)
        usage
        ;;
    *)
        usage >&2
        exit 64
        ;;
esac
