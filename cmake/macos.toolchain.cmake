# Cross-builds the tool for macOS from Linux: clang-19 compiles against Apple's SDK, zig links Mach-O.
#
# QVX_MACOS_ARCH (arm64 or x86_64) picks the slice; the SDK comes from QVX_MACOS_SDK (default
# ../shared/macos-sdk beside the project) and zig from QVX_ZIG (default: zig on the PATH).
# Both are read from the environment as well, because CMake re-reads this file for every
# try_compile, where cache variables are not seen.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20)  # Darwin 20 is macOS 11

foreach(var QVX_MACOS_ARCH QVX_MACOS_SDK QVX_ZIG)
  if(NOT ${var} AND DEFINED ENV{${var}})
    set(${var} "$ENV{${var}}")
  endif()
  set(ENV{${var}} "${${var}}")
endforeach()
if(NOT QVX_MACOS_ARCH)
  set(QVX_MACOS_ARCH arm64)
endif()
if(NOT QVX_MACOS_SDK)
  get_filename_component(QVX_MACOS_SDK "${CMAKE_CURRENT_LIST_DIR}/../../shared/macos-sdk" ABSOLUTE)
endif()
if(NOT QVX_ZIG)
  find_program(QVX_ZIG zig)
endif()
if(NOT EXISTS "${QVX_MACOS_SDK}/usr/include/stdio.h")
  message(FATAL_ERROR "no macOS SDK at ${QVX_MACOS_SDK}: set QVX_MACOS_SDK")
endif()
if(NOT QVX_ZIG)
  message(FATAL_ERROR "no zig to link with: set QVX_ZIG (scripts/build-macos installs one)")
endif()

if(QVX_MACOS_ARCH STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR arm64)
  set(zig_target aarch64-macos.11.0)
elseif(QVX_MACOS_ARCH STREQUAL "x86_64")
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
  set(zig_target x86_64-macos.11.0)
else()
  message(FATAL_ERROR "QVX_MACOS_ARCH is arm64 or x86_64, not ${QVX_MACOS_ARCH}")
endif()

set(CMAKE_OSX_SYSROOT "${QVX_MACOS_SDK}" CACHE PATH "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET 11.0 CACHE STRING "" FORCE)
# The triple names the architecture; -arch flags from CMake would only repeat it.
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)

# Full paths: CMake looks for an Objective-C++ compiler given by name in places of its own.
find_program(QVX_CLANG clang-19 REQUIRED)
find_program(QVX_CLANGXX clang++-19 REQUIRED)
set(CMAKE_C_COMPILER ${QVX_CLANG})
set(CMAKE_CXX_COMPILER ${QVX_CLANGXX})
set(CMAKE_OBJCXX_COMPILER ${QVX_CLANGXX})
set(CMAKE_AR llvm-ar-19 CACHE FILEPATH "" FORCE)
set(CMAKE_RANLIB llvm-ranlib-19 CACHE FILEPATH "" FORCE)
set(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool-19 CACHE FILEPATH "" FORCE)
set(CMAKE_OTOOL llvm-otool-19 CACHE FILEPATH "" FORCE)
foreach(lang C CXX OBJCXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${QVX_MACOS_ARCH}-apple-macos11)
  # zig brings libSystem and a libc++ of its own and resolves every symbol against the
  # SDK's stubs, so an undefined name fails here and not on the Mac. macos-stubs/ fills
  # in the stubs the SDK subset lacks.
  set(CMAKE_${lang}_LINK_EXECUTABLE
      "${CMAKE_CURRENT_LIST_DIR}/zig-link ${QVX_ZIG} ${zig_target} <LINK_FLAGS> <OBJECTS> -o <TARGET> -F${QVX_MACOS_SDK}/System/Library/Frameworks -L${QVX_MACOS_SDK}/usr/lib -L${CMAKE_CURRENT_LIST_DIR}/macos-stubs <LINK_LIBRARIES>")
endforeach()

# Everything the build looks up comes from the SDK, never from this Linux machine.
set(CMAKE_FIND_ROOT_PATH "${QVX_MACOS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
