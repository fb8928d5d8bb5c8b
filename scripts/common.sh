# Sourced by the scripts beside it: what they share.
# shellcheck shell=bash

QM_TOP="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
QM_PRESETS="dev release asan-ubsan tsan fuzz"
cd "$QM_TOP" || exit 1

# What is said to the person who started the script goes to stderr: stdout is for results.
say() { printf '== %s\n' "$*" >&2; }
die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}
# A wrong command line: exit code 2, as the usual tools have it.
usage_error() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 2
}

require_preset() {
    case " $QM_PRESETS " in
    *" $1 "*) ;;
    *) usage_error "no preset \"$1\"; there are: $QM_PRESETS" ;;
    esac
}

# What another clone of this tree has compiled is as good here: the compiler is called with relative
# paths, and the directory that it works in does not count.
export CCACHE_BASEDIR="$QM_TOP" CCACHE_NOHASHDIR=1
# The unit tests' headers are compiled once; the cache asks for this to handle that.
export CCACHE_SLOPPINESS=pch_defines,time_macros
# Where the compiler cache may not use its own default place, it lives in the tree.
if [ -z "${CCACHE_DIR:-}" ] && [ ! -w "${HOME:-/nonexistent}" ]; then
    export CCACHE_DIR="$QM_TOP/.cache/ccache"
fi

# What the sanitizers' runtimes are told, for whatever runs out of a preset's build directory (the
# build itself included: it runs the test programs to learn their tests). An option that the caller
# already set stands last and therefore wins.
sanitizer_environment() {
    local supp="$QM_TOP/tests/sanitizers"
    case "$1" in
    asan-ubsan | fuzz)
        export ASAN_OPTIONS="detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1:${ASAN_OPTIONS:-}"
        export LSAN_OPTIONS="suppressions=$supp/lsan.supp:print_suppressions=0:${LSAN_OPTIONS:-}"
        export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
        ;;
    tsan)
        export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:history_size=4:${TSAN_OPTIONS:-}"
        ;;
    esac
}

# The thread sanitizer's runtime lays its shadow over fixed addresses; a kernel that scatters
# mappings widely (vm.mmap_rnd_bits above 28) lands on them now and then. Without that scattering it
# always starts.
exec_in_preset() {
    local preset="$1"
    shift
    sanitizer_environment "$preset"
    if [ "$preset" = tsan ]; then
        exec setarch "$(uname -m)" --addr-no-randomize "$@"
    else
        exec "$@"
    fi
}
in_preset() { (exec_in_preset "$@"); }
