# Builds the macOS target for arm64 on Debian, as the newest Xcode would: with clang 19, and with what macos-check/make_sdks.py
# made in place of the SDK. On a Mac the target is built without this file, against the real SDK.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

get_filename_component(sdk "${CMAKE_CURRENT_LIST_DIR}/../build/macos-sdk-19" ABSOLUTE)
if(NOT EXISTS "${sdk}")
  message(FATAL_ERROR "What stands for the SDK is missing: run script/check-macos")
endif()

set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_OBJCXX_COMPILER /usr/bin/clang++-19) # This language's name is not looked up.
set(CMAKE_AR llvm-ar-19)
set(CMAKE_RANLIB llvm-ranlib-19)
set(CMAKE_INSTALL_NAME_TOOL /bin/false)

# CMake would ask Apple's tools for these.
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)
set(CMAKE_OSX_SYSROOT "" CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

# What a source's own definitions are is nothing to the libraries' headers, which are compiled once, as modules.
set(modules "-fmodules -fcxx-modules -fmodules-cache-path=${CMAKE_BINARY_DIR}/modules")
foreach(macro IN ITEMS TESSALOOM_VERSION TESSALOOM_INFO_PLIST TESSALOOM_LAUNCH_IS_OWN TESSALOOM_RECORDINGS TESSALOOM_DOCS
                       PRACTICE_ENGINE)
  string(APPEND modules " -fmodules-ignore-macro=${macro}")
endforeach()
foreach(language C CXX OBJCXX)
  # Debug information would hold the paths of headers.
  set(CMAKE_${language}_FLAGS_INIT
      "-target arm64-apple-macos13.0 -g0 -isysroot ${sdk} -Wno-unused-command-line-argument")
endforeach()
foreach(language CXX OBJCXX)
  string(APPEND CMAKE_${language}_FLAGS_INIT " -stdlib++-isystem ${sdk}/usr/include/c++/v1 ${modules}")
endforeach()
# check_executables.py reads pointers and lists of methods as they were before a linker packed them.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-fuse-ld=lld -Wl,-no_fixup_chains -Wl,-no_objc_relative_method_lists -framework CoreFoundation -lobjc")

# The executables are looked into, not run: half the time of an optimized build.
add_compile_options(-O0)

# The libraries from outside the platform, where a Mac's package managers install them.
set(CMAKE_FIND_ROOT_PATH "${sdk}/usr/local")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
