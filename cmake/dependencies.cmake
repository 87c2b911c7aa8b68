# Every package the build uses, found here once. Subdirectories link the
# imported targets and look nothing up themselves. A missing package stops
# the configuration with the Debian package that provides it
# (scripts/install-deps.sh installs them all).

macro(qzcap_missing what debian_package)
  message(FATAL_ERROR
    "${what} not found: install the Debian package ${debian_package} "
    "(scripts/install-deps.sh installs every package the build needs)")
endmacro()

# The presets compile through ccache.
foreach(lang C CXX)
  if(CMAKE_${lang}_COMPILER_LAUNCHER STREQUAL "ccache")
    find_program(QZCAP_CCACHE ccache)
    if(NOT QZCAP_CCACHE)
      qzcap_missing("ccache (the presets' compiler launcher)" ccache)
    endif()
  endif()
endforeach()

find_package(PkgConfig)
if(NOT PKG_CONFIG_FOUND)
  qzcap_missing("pkg-config" pkg-config)
endif()
find_package(Threads REQUIRED)

# Record types (proto/) and the bus client's codec.
pkg_check_modules(PROTOBUF_C IMPORTED_TARGET libprotobuf-c)
if(NOT PROTOBUF_C_FOUND)
  qzcap_missing("libprotobuf-c" libprotobuf-c-dev)
endif()
find_program(PROTOC_C protoc-c)
if(NOT PROTOC_C)
  qzcap_missing("protoc-c" protobuf-c-compiler)
endif()

# The bus client's Redis store, the tool, the tests' private servers and the
# benchmarks' raw client.
pkg_check_modules(HIREDIS IMPORTED_TARGET hiredis)
if(NOT HIREDIS_FOUND)
  qzcap_missing("hiredis" libhiredis-dev)
endif()

# krilsh is always built; qzcap too unless QZCAP_BUILD_TOOLS is off.
find_package(CLI11 CONFIG QUIET)
if(NOT CLI11_FOUND)
  qzcap_missing("CLI11" libcli11-dev)
endif()

# Device descriptions: the tool and its end-to-end tests.
if(QZCAP_BUILD_TOOLS OR QZCAP_BUILD_TESTS)
  find_package(nlohmann_json CONFIG QUIET)
  if(NOT nlohmann_json_FOUND)
    qzcap_missing("nlohmann_json" nlohmann-json3-dev)
  endif()
endif()

if(QZCAP_BUILD_TESTS)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND OR NOT TARGET GTest::gmock)
    qzcap_missing("GoogleTest with GoogleMock" "libgtest-dev and libgmock-dev")
  endif()
  find_program(CLANG_FORMAT clang-format)
  if(NOT CLANG_FORMAT)
    qzcap_missing("clang-format (the format check)" clang-format)
  endif()
endif()
