# Helpers shared by the build of every directory.

set(KELDO_ROOT ${CMAKE_SOURCE_DIR})

