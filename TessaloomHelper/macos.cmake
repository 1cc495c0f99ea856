# The executable on macOS: the XPC front end around the portable parts.
set(info_section src/macos/InfoPropertyList.cpp)
if(TESSALOOM_RUN_MACOS_HERE)
  # The one source that needs a Mac's object format.
  set(info_section "${PROJECT_SOURCE_DIR}/macos-check/doubles/InfoSection.cpp")
endif()

add_executable(
  tessaloom-helper
  src/macos/DispatchTasks.mm
  src/macos/HelperProcess.mm
  src/macos/HelperService.mm
  src/macos/LaunchAgent.mm
  src/macos/ListenerDelegate.mm
  src/macos/OpenCalls.cpp
  src/macos/main.mm
  ${info_section})
set_target_properties(tessaloom-helper PROPERTIES OUTPUT_NAME TessaloomHelper)
target_include_directories(tessaloom-helper PRIVATE src src/macos)
target_link_libraries(tessaloom-helper PRIVATE tessaloom_settings TessaloomHelperParts
                                               ${SERVICE_MANAGEMENT_FRAMEWORK})

set(info_plist "${CMAKE_CURRENT_BINARY_DIR}/Info.plist")
configure_file("${PROJECT_SOURCE_DIR}/packaging/macos/Info.plist.in" "${info_plist}" @ONLY)
set_source_files_properties(
  ${info_section}
  PROPERTIES COMPILE_DEFINITIONS "TESSALOOM_INFO_PLIST=\"${info_plist}\"" OBJECT_DEPENDS
                                                                         "${info_plist}")
