# Toolchain for building on a Mac, for the processor and the oldest system that the library is for.
set(CMAKE_OSX_ARCHITECTURES x86_64 CACHE STRING "")
set(CMAKE_OSX_DEPLOYMENT_TARGET 10.13 CACHE STRING "")
