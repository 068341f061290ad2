# Debian packages by CPack, one per group of install components:
#
#   libqtrace1        our stand-in for the trace library; the real one takes its place
#   libkelto-util1    the shared library
#   kelto-util-tools  kelto-flight and kelto-top
#   libkelto-util-dev headers, links, static libraries, CMake and pkg-config files, documents
#
# tools/debian-packages configures, builds and packs them, for amd64 or arm64.

if(NOT KELTO_DEBIAN)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelto-util)
set(CPACK_PACKAGE_VENDOR "kelto_util maintainers")
set(CPACK_PACKAGE_CONTACT "kelto_util maintainers <maintainers@kelto.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Qtrace Runtime Programs Development Documentation)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
  # The tool would name the packages of the cross compiler; these are the versions that they are of.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(kelto_system_libraries "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_QTRACE_PACKAGE_DEPENDS "${kelto_system_libraries}")
  set(kelto_further_libraries ", ${kelto_system_libraries}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/source/qtrace ${PROJECT_BINARY_DIR}/source/util)
  set(kelto_further_libraries "")
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_QTRACE_PACKAGE_NAME libqtrace1)
set(CPACK_DEBIAN_QTRACE_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_QTRACE_DESCRIPTION
  "A stand-in for the trace library that kelto_util delivers its text to.
It writes each trace text as one line to the standard error stream or a file.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelto-util1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "libqtrace1 (>= ${PROJECT_VERSION})${kelto_further_libraries}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Worker threads with event queues and timers, the locks beneath them, chains of
message blocks, tracing, configuration files, URLs and text encodings.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME kelto-util-tools)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION utils)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS "${kelto_system_libraries}")
endif()
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION
  "What worker threads do and did last: viewers for flight recorders' files.
kelto-top shows the workers of a running process, kelto-flight prints what the
threads of a process did last, also after it was killed.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelto-util-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libkelto-util1 (= ${PROJECT_VERSION}), libqtrace1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "What is needed to build programs with libkelto-util1, shared or static.")

include(CPack)
cpack_add_component(Qtrace GROUP Qtrace)
cpack_add_component(Runtime GROUP Runtime)
cpack_add_component(Programs GROUP Programs)
cpack_add_component(Development GROUP Development)
cpack_add_component(Documentation GROUP Development)
cpack_add_component_group(Qtrace)
cpack_add_component_group(Runtime)
cpack_add_component_group(Programs)
cpack_add_component_group(Development)

# What each package must carry about itself.
execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/debian/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component Qtrace Runtime Programs Development)
  string(TOUPPER ${component} COMPONENT)
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz ${CMAKE_CURRENT_LIST_DIR}/debian/copyright
    DESTINATION share/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME} COMPONENT ${component})
endforeach()
