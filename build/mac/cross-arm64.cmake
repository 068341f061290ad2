# The same for arm64, of which macOS 11 is the oldest system.
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_CXX_COMPILER "${CMAKE_CURRENT_LIST_DIR}/mac-arm64-c++")
set(CMAKE_OSX_DEPLOYMENT_TARGET 11.0 CACHE STRING "")
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
