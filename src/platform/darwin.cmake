# The platform libraries of the macOS build: the same names as on Linux, backed by the
# system's frameworks, the Objective-C++ backend in cocoa/ and the seams' Darwin files.
# Nothing of mac/ or sim/ takes part.

qvx_seam_sources(base_sources clock descriptors)
add_library(qvx_platform_base ${base_sources})
target_link_libraries(qvx_platform_base PUBLIC qvx_common Threads::Threads
                      "-framework Foundation" "-framework CoreFoundation")

add_library(qvx_iokit INTERFACE)
target_link_libraries(qvx_iokit INTERFACE qvx_platform_base "-framework IOKit")

add_library(qvx_cfstring INTERFACE)
target_link_libraries(qvx_cfstring INTERFACE qvx_common "-framework CoreFoundation")

# AppKit, Foundation's objects and the window server through the Objective-C++ backend;
# Gestalt and the File Manager are CoreServices'.
file(GLOB cocoa_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/cocoa/*.mm
     ${CMAKE_CURRENT_SOURCE_DIR}/cocoa/*.cpp)
if(cocoa_sources)
  add_library(qvx_appkit ${cocoa_sources})
  set(scope PUBLIC)
else()
  # No backend yet: the tool's AppKit calls then fail to compile, which says more than an
  # empty library would.
  add_library(qvx_appkit INTERFACE)
  set(scope INTERFACE)
endif()
target_link_libraries(qvx_appkit ${scope} qvx_platform_base qvx_cfstring "-framework AppKit"
                      "-framework CoreGraphics" "-framework CoreServices")

qvx_seam_sources(sys_sources syscalls)
add_library(qvx_sys ${sys_sources})
target_link_libraries(qvx_sys PUBLIC qvx_common)

# The File Manager's catalog is the system's own.
add_library(qvx_catalog INTERFACE)
target_link_libraries(qvx_catalog INTERFACE "-framework CoreServices")

qvx_seam_sources(pvcall_sources pvcall)
add_library(qvx_pvcall ${pvcall_sources})
target_link_libraries(qvx_pvcall PUBLIC qvx_common)
