#!/usr/bin/env bash
# Ovalto's one entry point: installs what the build needs, configures, builds and runs.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
JOBS=$(nproc 2>/dev/null || echo 2)

PACKAGES=(
    build-essential cmake ninja-build pkg-config
    libcurl4-openssl-dev libcpp-httplib-dev nlohmann-json3-dev libexpat1-dev
    liburiparser-dev libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
    libssl-dev libpango1.0-dev libcairo2-dev fonts-dejavu-core fonts-vlgothic
    ffmpeg mpv gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav
)
FUZZ_PACKAGES=(clang libclang-rt-14-dev)
COMPARE_PACKAGES=(python3 python3-m3u8 time)

usage() {
    cat <<'EOF'
usage: ./ovalto.sh COMMAND [ARGS]

Commands:
  play [ARGS]          build the tool and run `ovalto play ARGS` (no ARGS: the built-in sample)
  test [--sanitize address|thread]
                       build and run the test suite (plain, ASan+UBSan, or TSan)
  build [--sanitize address|thread]
                       configure and build only
  tool ARGS            build and run the `ovalto` command-line tool with ARGS
  bench [FILTER]       build the benchmarks (Release) and run them
  fuzz TARGET SECONDS  build the libFuzzer targets with clang and run TARGET for SECONDS
                       (targets: fuzz_attributes fuzz_master fuzz_media fuzz_key_messages
                        fuzz_route_table fuzz_json_writer fuzz_subrip fuzz_ttml fuzz_bridge_url
                        fuzz_rewritten_url)
  package              build (Release) and make build/release/ovalto_<version>_amd64.deb
  setup                install the Debian packages the build needs (apt-get)
  format               run clang-format over the sources
  help                 this text

Build trees live in build/<flavour>. Packages are installed with apt-get only when missing.
EOF
}

need_packages() {
    local missing=()
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "ovalto.sh: installing ${missing[*]}" >&2
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq </dev/null
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
}

configure_and_build() {
    local flavour=$1; shift
    local dir="$ROOT/build/$flavour"
    cmake -S "$ROOT" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$JOBS"
    BUILD_DIR=$dir
}

sanitize_args() {
    SAN=""
    while [ $# -gt 0 ]; do
        case $1 in
        --sanitize) SAN=${2:?--sanitize takes address or thread}; shift 2 ;;
        --sanitize=*) SAN=${1#*=}; shift ;;
        *) echo "ovalto.sh: unknown option $1" >&2; exit 2 ;;
        esac
    done
    case $SAN in
    "") FLAVOUR=default ;;
    address) FLAVOUR=asan ;;
    thread) FLAVOUR=tsan ;;
    *) echo "ovalto.sh: --sanitize takes address or thread" >&2; exit 2 ;;
    esac
}

build_flavour() {
    need_packages "${PACKAGES[@]}"
    configure_and_build "$FLAVOUR" -DOVALTO_SANITIZE="$SAN"
}

cmd=${1:-help}
[ $# -gt 0 ] && shift
case $cmd in
setup)
    need_packages "${PACKAGES[@]}" "${FUZZ_PACKAGES[@]}" "${COMPARE_PACKAGES[@]}"
    ;;
build)
    sanitize_args "$@"
    build_flavour
    ;;
test)
    sanitize_args "$@"
    build_flavour
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
    runner=()
    # ThreadSanitizer cannot map its shadow memory with the kernel's full address randomisation.
    if [ "$SAN" = thread ] && command -v setarch >/dev/null; then runner=(setarch "$(uname -m)" -R); fi
    cd "$BUILD_DIR"
    "${runner[@]}" ctest --output-on-failure -j "$JOBS"
    ;;
tool | play)
    SAN="" FLAVOUR=default
    build_flavour
    if [ "$cmd" = play ]; then set -- play "$@"; fi
    exec "$BUILD_DIR/bin/ovalto" "$@"
    ;;
package)
    need_packages "${PACKAGES[@]}"
    configure_and_build release -DCMAKE_BUILD_TYPE=Release -DOVALTO_TESTS=OFF
    cd "$BUILD_DIR" && cpack -G DEB
    ;;
bench)
    need_packages "${PACKAGES[@]}"
    configure_and_build bench -DCMAKE_BUILD_TYPE=Release -DOVALTO_TESTS=OFF -DOVALTO_BENCH=ON
    for b in "$BUILD_DIR"/bench/bench_*; do
        [ -x "$b" ] && "$b" ${1:+--benchmark_filter="$1"}
    done
    ;;
fuzz)
    target=${1:?usage: ./ovalto.sh fuzz TARGET SECONDS}
    seconds=${2:?usage: ./ovalto.sh fuzz TARGET SECONDS}
    need_packages "${PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"
    CC=clang CXX=clang++ configure_and_build fuzz -DOVALTO_FUZZ=ON -DOVALTO_TESTS=OFF
    shift 2
    # New inputs go to the working corpus; the seeds are the kept corpus fuzz/corpus/TARGET and
    # the playlist fixtures of the tests (every playlist target reads playlists: the attribute
    # target takes each line as a tag line), or for the subtitle targets the side-car documents of
    # the tests. Findings land in build/fuzz/artifacts; once fixed, a finding is copied into
    # fuzz/corpus/TARGET, which `./ovalto.sh test` replays. Further arguments go to libFuzzer.
    seeds="$ROOT/tests/data/playlists" dict="$ROOT/fuzz/hls.dict"
    case $target in fuzz_subrip | fuzz_ttml) seeds="$ROOT/tests/data/timedtext" dict="$ROOT/fuzz/timedtext.dict" ;; esac
    corpus="$ROOT/build/fuzz/corpus/$target"
    artifacts="$ROOT/build/fuzz/artifacts"
    mkdir -p "$corpus" "$artifacts"
    inputs=("$corpus")
    [ -d "$ROOT/fuzz/corpus/$target" ] && inputs+=("$ROOT/fuzz/corpus/$target")
    # Inputs that are not playlists (bridge request targets) are seeded from fuzz/seeds/<name> too.
    [ -d "$ROOT/fuzz/seeds/${target#fuzz_}" ] && inputs+=("$ROOT/fuzz/seeds/${target#fuzz_}")
    exec "$BUILD_DIR/fuzz/$target" "${inputs[@]}" "$seeds" -dict="$dict" \
        -artifact_prefix="$artifacts/$target-" -max_total_time="$seconds" -print_final_stats=1 "$@"
    ;;
format)
    git -C "$ROOT" ls-files '*.h' '*.cpp' | (cd "$ROOT" && xargs clang-format -i)
    ;;
help | -h | --help)
    usage
    ;;
*)
    echo "ovalto.sh: unknown command '$cmd'" >&2
    usage >&2
    exit 2
    ;;
esac
