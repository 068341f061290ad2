# The options that every target of this project is compiled with; nothing here reaches a consumer.

add_library(kelto_compile_options INTERFACE)

# Compiler caches may hand sources over relative to the build directory.
file(RELATIVE_PATH KELTO_ROOT_FROM_BUILD ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
string(REGEX REPLACE "([^/])$" "\\1/" KELTO_ROOT_FROM_BUILD "${KELTO_ROOT_FROM_BUILD}")

target_compile_features(kelto_compile_options INTERFACE cxx_std_17)

# Warnings are errors for the compilers that we test with; another version may know warnings that
# nobody here has seen, and a newcomer's build must not fail over them.
set(KELTO_WERROR_FLAG "")
if(KELTO_WERROR AND "${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}" MATCHES "^(GNU 12|Clang 14)\\.")
  set(KELTO_WERROR_FLAG -Werror)
endif()

target_compile_options(kelto_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
  -Wmissing-declarations
  ${KELTO_WERROR_FLAG}
  $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>
  # File names in assertion lines and debug information are relative to the project's root, and no
  # path of the build is left in them, so that two builds in two directories are alike.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
  "-ffile-prefix-map=${KELTO_ROOT_FROM_BUILD}="
  "-ffile-prefix-map=${CMAKE_BINARY_DIR}=.")

# kelto_forget_build_path(target): a Mach-O library names the objects that it was linked from, for
# debuggers; what it names is relative to the build directory. The cross linker has no such option
# and leaves the names out.
function(kelto_forget_build_path target)
  if(CMAKE_CROSSCOMPILING)
    target_link_options(${target} PRIVATE LINKER:-S)
  else()
    target_link_options(${target} PRIVATE "LINKER:-oso_prefix,${CMAKE_BINARY_DIR}/")
  endif()
endfunction()

if(KELTO_SANITIZE)
  target_compile_options(kelto_compile_options INTERFACE
    -fsanitize=${KELTO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kelto_compile_options INTERFACE -fsanitize=${KELTO_SANITIZE})
endif()

# The atomic operations become calls, by which Helgrind learns of them; nothing else changes.
if(KELTO_HELGRIND)
  target_compile_options(kelto_compile_options INTERFACE
    -fsanitize=thread -fno-omit-frame-pointer)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tests/valgrind ${CMAKE_BINARY_DIR}/tests/valgrind)
endif()

if(KELTO_COVERAGE)
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    # Programs that are run by hand write below the build as well.
    set(KELTO_COVERAGE_FLAGS
      -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%4m.profraw -fcoverage-mapping)
  else()
    set(KELTO_COVERAGE_FLAGS --coverage -fprofile-update=atomic)
  endif()
  target_compile_options(kelto_compile_options INTERFACE ${KELTO_COVERAGE_FLAGS})
  target_compile_definitions(kelto_compile_options INTERFACE KELTO_COVERAGE)
  target_link_options(kelto_compile_options INTERFACE ${KELTO_COVERAGE_FLAGS})
endif()
