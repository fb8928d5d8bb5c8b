# The common functions of the scripts in this folder, which source it.
# shellcheck shell=bash

QM_TOP="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
QM_PRESETS="dev release asan-ubsan tsan fuzz tidy"
cd "$QM_TOP" || exit 1

# Messages for the person go to stderr, because stdout is for results.
say() { printf '== %s\n' "$*" >&2; }
die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}
# Ends after a wrong command line with exit code 2, like most tools.
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

# All clones of this tree share the compiler cache: it makes paths relative, and ignores the working
# directory.
export CCACHE_BASEDIR="$QM_TOP" CCACHE_NOHASHDIR=1
# The cache needs this for the precompiled headers of the unit tests.
export CCACHE_SLOPPINESS=pch_defines,time_macros
# If the compiler cache cannot write to its default folder, it uses one in the tree.
if [ -z "${CCACHE_DIR:-}" ] && [ ! -w "${HOME:-/nonexistent}" ]; then
    export CCACHE_DIR="$QM_TOP/.cache/ccache"
fi

# Sets the options of the sanitizers' runtimes, for all programs of a preset's build directory. The
# build needs them as well: it runs the test programs to list their tests. The caller's options come
# last and therefore win.
sanitizer_environment() {
    local supp="$QM_TOP/tests/sanitizers"
    case "$1" in
    asan-ubsan | fuzz)
        export ASAN_OPTIONS="detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1:${ASAN_OPTIONS:-}"
        export LSAN_OPTIONS="suppressions=$supp/lsan.supp:print_suppressions=0:${LSAN_OPTIONS:-}"
        export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
        ;;
    tsan)
        export TSAN_OPTIONS="suppressions=$supp/tsan.supp:halt_on_error=1:second_deadlock_stack=1:history_size=4:${TSAN_OPTIONS:-}"
        ;;
    esac
}

# Runs a command for a preset, in place of this shell. The thread sanitizer's runtime needs fixed
# addresses. A kernel that places mappings at random (vm.mmap_rnd_bits above 28) sometimes uses
# these addresses. So the preset tsan runs without that.
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
