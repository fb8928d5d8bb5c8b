# How our own code is compiled: warnings, sanitizers, coverage, the compiler cache.

find_program(QM_CCACHE ccache)
if(QM_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QM_CCACHE}")
endif()

# Linked PRIVATE by every target of ours, so that nobody who links us inherits our warnings.
add_library(qm_warnings INTERFACE)
target_compile_options(qm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wcast-qual
  -Wformat=2 -Wundef -Wunused -Wno-unknown-pragmas $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
if(QM_WERROR)
  target_compile_options(qm_warnings INTERFACE -Werror)
endif()

# Reports name a source by its place in the tree, not by where it was built.
add_compile_options(-fno-omit-frame-pointer "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-fstack-protector-strong)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now)
else()
  # Links in a fraction of the time. What is shipped is linked by the system's own linker.
  find_program(QM_MOLD mold)
  if(QM_MOLD)
    add_link_options(-fuse-ld=mold)
  endif()
endif()
if(QM_SANITIZE)
  add_compile_options(-fsanitize=${QM_SANITIZE})
  add_link_options(-fsanitize=${QM_SANITIZE})
  # Instrumented, even the standard library's own code looks to this warning as if it read what
  # nobody wrote; the other presets have it.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(QM_SANITIZE MATCHES "undefined")
    # The ORB's and the ACE library's own objects carry no type information for this check.
    add_compile_options(-fno-sanitize=vptr -fno-sanitize-recover=all)
  endif()
endif()
if(QM_FUZZ)
  # The code under test tells the fuzzer which ways it took; only a harness brings the fuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
# Tests are compiled for a short build, and they are not what is measured.
set(QM_TEST_OPTIONS "")
if(CMAKE_BUILD_TYPE MATCHES "^Rel")
  # At -O1 the compiler suspects the standard library of writing out of bounds.
  set(QM_TEST_OPTIONS -O1 -g1 -Wno-array-bounds -Wno-restrict)
endif()
# A compiled header is used only where the compiler cache can tell what went into it.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND QM_TEST_OPTIONS -fpch-preprocess)
endif()
if(QM_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
