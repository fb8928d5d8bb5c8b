# Compiler options for our own code: warnings, sanitizers, coverage, the compiler cache.

find_program(QM_CCACHE ccache)
if(QM_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QM_CCACHE}")
endif()

# Each of our targets links it PRIVATE, so users of our libraries do not inherit our warnings.
add_library(qm_warnings INTERFACE)
target_compile_options(qm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wcast-qual
  -Wformat=2 -Wundef -Wunused -Wno-unknown-pragmas $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
if(CMAKE_UNITY_BUILD)
  # The compiler takes the sources of a unity build for headers.
  target_compile_options(qm_warnings INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
if(QM_WERROR)
  target_compile_options(qm_warnings INTERFACE -Werror)
endif()

# Log lines and reports show the path of a source relative to the tree.
add_compile_options(-fno-omit-frame-pointer "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-fstack-protector-strong)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now)
  # With -O3, GCC 12 gives this warning for any text plus a std::string.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
else()
  # mold links much faster. The system's own linker links the release.
  find_program(QM_MOLD mold)
  if(QM_MOLD)
    add_link_options(-fuse-ld=mold)
  endif()
endif()
if(QM_SANITIZE)
  add_compile_options(-fsanitize=${QM_SANITIZE})
  add_link_options(-fsanitize=${QM_SANITIZE})
  # In instrumented code this warning is often wrong, also for the standard library. The other
  # presets enable it.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(QM_SANITIZE MATCHES "undefined")
    # The objects of the ORB and of ACE have no type information for this check.
    add_compile_options(-fno-sanitize=vptr -fno-sanitize-recover=all)
  endif()
endif()
if(QM_FUZZ)
  # The code under test reports its branches to the fuzzer. Only a harness links the fuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
# Tests are compiled without optimisation, to shorten the build. The fortified functions need
# optimisation, so they are off.
set(QM_TEST_OPTIONS -O0 -g1 -U_FORTIFY_SOURCE)
# With this option the compiler cache sees the contents of a precompiled header.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND QM_TEST_OPTIONS -fpch-preprocess)
endif()
if(QM_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
  # The report is about the libraries, not about their tests.
  list(APPEND QM_TEST_OPTIONS -fno-profile-arcs -fno-test-coverage)
endif()
