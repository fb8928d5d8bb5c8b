# All libraries come from the distribution's packages, which scripts/setup installs.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(XercesC REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(pegtl REQUIRED)
find_package(tl-expected REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(tsl-robin-map REQUIRED)
find_package(utf8cpp REQUIRED)
pkg_check_modules(ACE REQUIRED IMPORTED_TARGET ACE)
pkg_check_modules(OMNIORB REQUIRED IMPORTED_TARGET omniORB4)
pkg_check_modules(MOUNT REQUIRED IMPORTED_TARGET mount)
pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
find_library(OMNI_CODESETS omniCodeSets4 REQUIRED)
find_library(OMNI_TLS omnisslTP4 REQUIRED)
find_program(OMNIIDL omniidl REQUIRED)
if(QM_TESTS)
  find_package(GTest REQUIRED)
  find_program(PYTEST NAMES pytest-3 pytest REQUIRED)
  include(GoogleTest)
endif()

if(QM_BENCH)
  pkg_check_modules(FUSE REQUIRED IMPORTED_TARGET fuse3)
endif()

# qm_idl_library(TARGET FILE.idl) compiles an interface definition into a static library of stubs
# and skeletons. It generates the header FILE.hh.
function(qm_idl_library target idl)
  get_filename_component(name "${idl}" NAME_WE)
  set(dir "${CMAKE_CURRENT_BINARY_DIR}/generated")
  file(MAKE_DIRECTORY "${dir}")
  add_custom_command(
    OUTPUT "${dir}/${name}.hh" "${dir}/${name}SK.cc"
    COMMAND "${OMNIIDL}" -bcxx "-C${dir}" "${CMAKE_CURRENT_SOURCE_DIR}/${idl}"
    DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${idl}"
    COMMENT "Compiling ${idl}"
    VERBATIM)
  add_library(${target} STATIC "${dir}/${name}SK.cc" "${dir}/${name}.hh")
  target_include_directories(${target} SYSTEM PUBLIC "$<BUILD_INTERFACE:${dir}>")
  target_link_libraries(${target} PUBLIC PkgConfig::OMNIORB)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden
    CXX_CLANG_TIDY "")
endfunction()
