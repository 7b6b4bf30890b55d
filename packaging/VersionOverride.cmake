# Runs at the end of the root project() call when a build folder is configured with
#   -DCMAKE_PROJECT_PelorinVPN_INCLUDE=<this file> -DPELORIN_VERSION_OVERRIDE=X.Y.Z
# and makes the whole build (the version the program reports, the package version) use
# X.Y.Z instead of the version in the root CMakeLists.txt. build-deb.sh uses it to make a
# "newer" package for trying the in-app update; an empty override changes nothing.
if(PELORIN_VERSION_OVERRIDE)
  if(NOT PELORIN_VERSION_OVERRIDE MATCHES "^([0-9]+)\\.([0-9]+)\\.([0-9]+)$")
    message(FATAL_ERROR "PELORIN_VERSION_OVERRIDE must look like 2.1.1, not '${PELORIN_VERSION_OVERRIDE}'")
  endif()
  foreach(prefix PROJECT PelorinVPN CMAKE_PROJECT)
    set(${prefix}_VERSION ${PELORIN_VERSION_OVERRIDE})
    set(${prefix}_VERSION_MAJOR ${CMAKE_MATCH_1})
    set(${prefix}_VERSION_MINOR ${CMAKE_MATCH_2})
    set(${prefix}_VERSION_PATCH ${CMAKE_MATCH_3})
  endforeach()
  message(STATUS "Version overridden: ${PELORIN_VERSION_OVERRIDE}")
endif()
