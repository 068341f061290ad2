# What `cmake --install` puts where. Everything is relocatable: paths are relative to the file that
# holds them. Install components: Runtime, Qtrace (our stand-in for the trace library, left out
# where the real one is installed), Programs, Development, Documentation.

include(CMakePackageConfigHelpers)

set(KELTO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelto_util)

# kelto_install_library(target component export-set): a library and its entry in a file of targets.
function(kelto_install_library target component export)
  install(TARGETS ${target} EXPORT ${export}
    FRAMEWORK DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT ${component} NAMELINK_COMPONENT Development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
  install(EXPORT ${export} NAMESPACE kelto:: DESTINATION ${KELTO_CMAKE_DIR} COMPONENT Development)
endfunction()

kelto_install_library(kelto_util Runtime kelto_util-shared)
if(TARGET kelto_util_static)
  kelto_install_library(kelto_util_static Runtime kelto_util-static)
endif()
if(KELTO_OWN_QTRACE)
  kelto_install_library(qtrace Qtrace kelto_util-qtrace)
  if(TARGET qtrace_static)
    kelto_install_library(qtrace_static Qtrace kelto_util-qtrace_static)
  endif()
  install(FILES source/qtrace/qtrace.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelto_util COMPONENT Development)
endif()

if(TARGET kelto-flight)
  install(TARGETS kelto-flight kelto-top
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Programs)
  foreach(program kelto-flight kelto-top)
    set(page source/programs/${program}.1)
    if(KELTO_DEBIAN)  # whose pages are compressed
      execute_process(COMMAND gzip -9nc ${page} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_FILE ${PROJECT_BINARY_DIR}/${program}.1.gz COMMAND_ERROR_IS_FATAL ANY)
      set(page ${PROJECT_BINARY_DIR}/${program}.1.gz)
    endif()
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Programs)
  endforeach()
endif()

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelto_util
  COMPONENT Development FILES_MATCHING PATTERN "*.h")

configure_package_config_file(cmake/kelto_utilConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kelto_utilConfig.cmake
  INSTALL_DESTINATION ${KELTO_CMAKE_DIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kelto_utilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/kelto_utilConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kelto_utilConfigVersion.cmake
  DESTINATION ${KELTO_CMAKE_DIR} COMPONENT Development)

# From lib/pkgconfig or lib/<machine>/pkgconfig up to the prefix.
file(RELATIVE_PATH KELTO_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KELTO_PC_TO_PREFIX "${KELTO_PC_TO_PREFIX}")
# A directory that was given in full lies outside the prefix and cannot be moved with it.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(KELTO_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(KELTO_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
# A Mac's libraries lack the prefix by which -l finds one, so they are given as files.
if(KELTO_FRAMEWORK)
  set(KELTO_PC_LIBS "-F\${libdir} -framework util")
elseif(APPLE)
  set(KELTO_PC_LIBS "\${libdir}/util.dylib")
else()
  set(KELTO_PC_LIBS "-L\${libdir} -lkelto_util")
endif()
if(APPLE)
  set(KELTO_PC_PRIVATE_LIBS "\${libdir}/qtrace.dylib")
else()
  set(KELTO_PC_PRIVATE_LIBS -lqtrace)
endif()
set(KELTO_PC_DL_LIBS "")
if(CMAKE_DL_LIBS)
  set(KELTO_PC_DL_LIBS "-l${CMAKE_DL_LIBS}")
endif()
configure_file(cmake/kelto_util.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kelto_util.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kelto_util.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT Documentation
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
# The pages lead there.
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation
  PATTERN "tests" EXCLUDE)

# lldb loads what it is told to.
install(FILES tools/lldb/kelto_util_lldb.py
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kelto_util COMPONENT Development)
# gdb loads what lies beside a library under the library's name, if it trusts the directory.
set(KELTO_GDB_DIR ${CMAKE_INSTALL_LIBDIR} CACHE STRING "Where the gdb printers go")
if(NOT APPLE)
  install(FILES tools/gdb/kelto_util-gdb.py DESTINATION ${KELTO_GDB_DIR}
    RENAME libkelto_util.so.${PROJECT_VERSION}-gdb.py COMPONENT Development)
endif()
