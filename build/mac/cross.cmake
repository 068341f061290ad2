# Toolchain for building for macOS on x86-64, on Linux x86-64; cross-arm64.cmake is for the other
# processor. build/mac/get-tools gets the compiler; the frameworks are linked through the text stubs
# in build/mac/stubs.
set(CMAKE_SYSTEM_NAME Darwin)
if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
  set(CMAKE_CXX_COMPILER "${CMAKE_CURRENT_LIST_DIR}/mac-c++")
endif()
set(CMAKE_AR "${CMAKE_CURRENT_LIST_DIR}/mac-ar")
set(CMAKE_RANLIB "${CMAKE_CURRENT_LIST_DIR}/mac-ranlib")
# Debian names it with the version of LLVM.
find_program(CMAKE_INSTALL_NAME_TOOL REQUIRED NAMES llvm-install-name-tool
  llvm-install-name-tool-14 llvm-install-name-tool-15 llvm-install-name-tool-16
  llvm-install-name-tool-17 llvm-install-name-tool-18 llvm-install-name-tool-19)
set(CMAKE_USER_MAKE_RULES_OVERRIDE "${CMAKE_CURRENT_LIST_DIR}/cross-rules.cmake")
set(CMAKE_OSX_SYSROOT "" CACHE STRING "")
set(CMAKE_OSX_DEPLOYMENT_TARGET 10.13 CACHE STRING "")
# With the annotations, what came after the deployment target is refused, and what the headers have
# instead is compiled here.
# The compiler makes tables of offsets between sections out of comparisons, and its linker does not
# fill them in: every look-up found the first entry. Without tables it compares.
set(CMAKE_CXX_FLAGS_INIT
  "-fno-sanitize=undefined -fno-jump-tables -U_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS -D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=1")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "\"-F${CMAKE_CURRENT_LIST_DIR}/stubs\" -nostdlib++ \"${CMAKE_CURRENT_LIST_DIR}/../../out/mac-tools/libc++-whole.tbd\"")
set(CMAKE_SHARED_LINKER_FLAGS_INIT
  "\"-F${CMAKE_CURRENT_LIST_DIR}/stubs\" -nostdlib++ \"${CMAKE_CURRENT_LIST_DIR}/../../out/mac-tools/libc++.tbd\"")
# This machine's programs, but neither its libraries nor its headers.
set(CMAKE_FIND_ROOT_PATH "${CMAKE_CURRENT_LIST_DIR}/stubs")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(KELTO_THREAD_LOCAL_OPTIONS -include "${CMAKE_CURRENT_LIST_DIR}/thread_vars.h")
