# What `cmake --install` puts where, in three components: command, component and development. The
# libraries are in a folder of their own: the component is loaded by its file name, which has no
# version, and the names of the others are too general to be shared with every other program.
# Everything finds the rest by its own place, so that an installed tree can be moved.
include(CMakePackageConfigHelpers)

set(library_folder "${CMAKE_INSTALL_LIBDIR}/tdmbrec")
set(header_folder "${CMAKE_INSTALL_INCLUDEDIR}/tdmbrec")

set(static_libraries mp4mux aacenc journal aac_frame recovery)
set(shared_libraries tdmbrec_component)
set(headers mp4mux/mp4_mux.h aacenc/aac_enc.h recovery/recovery.h component/frame_fifo.h
    component/tdmbrec_interface.h platform/android_log.h platform/omx_base.h platform/omx_il.h
    platform/qvr_memory.h platform/semaphore_queue.h platform/storage_info.h
    platform/system_properties.h)
set_target_properties(tdmbrec_component PROPERTIES EXPORT_NAME component)
if(NOT TDMBREC_PLATFORM_LIBRARIES)
    list(APPEND static_libraries omx_core)
    list(APPEND shared_libraries platform_host)
    list(APPEND headers client/omx_core.h platform/host/host_control.h)
    # The component finds the stand-in beside itself, and a program with the core both of them.
    set_target_properties(tdmbrec_component PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN")
    target_link_options(omx_core INTERFACE
        "$<INSTALL_INTERFACE:-Wl,-rpath,$<INSTALL_PREFIX>/${library_folder}>")
endif()

# A program in C is linked without the runtime of C++.
foreach(library IN LISTS static_libraries)
    target_link_libraries(${library} INTERFACE
        "$<INSTALL_INTERFACE:$<$<LINK_LANGUAGE:C>:stdc++>>" "$<INSTALL_INTERFACE:m>")
endforeach()

install(TARGETS ${shared_libraries} EXPORT tdmbrec
    LIBRARY DESTINATION "${library_folder}" COMPONENT component
    INCLUDES DESTINATION "${header_folder}")
install(TARGETS ${static_libraries} EXPORT tdmbrec
    ARCHIVE DESTINATION "${library_folder}" COMPONENT development
    INCLUDES DESTINATION "${header_folder}")
foreach(header IN LISTS headers)
    cmake_path(GET header PARENT_PATH folder)
    install(FILES "${header}" DESTINATION "${header_folder}/${folder}" COMPONENT development)
endforeach()

install(EXPORT tdmbrec NAMESPACE tdmbrec:: FILE tdmbrec-targets.cmake
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/tdmbrec" COMPONENT development)
configure_package_config_file(packaging/tdmbrec-config.cmake.in
    "${CMAKE_BINARY_DIR}/packaging/tdmbrec-config.cmake"
    INSTALL_DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/tdmbrec")
write_basic_package_version_file("${CMAKE_BINARY_DIR}/packaging/tdmbrec-config-version.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/packaging/tdmbrec-config.cmake"
        "${CMAKE_BINARY_DIR}/packaging/tdmbrec-config-version.cmake"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/tdmbrec" COMPONENT development)

# add_pkg_config(NAME DESCRIPTION LIBS)
function(add_pkg_config name description libs)
    file(RELATIVE_PATH prefix_from_file "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
        "${CMAKE_INSTALL_PREFIX}")
    string(REGEX REPLACE "/$" "" prefix_from_file "${prefix_from_file}")
    file(RELATIVE_PATH headers_from_prefix "${CMAKE_INSTALL_PREFIX}"
        "${CMAKE_INSTALL_FULL_INCLUDEDIR}/tdmbrec")
    file(RELATIVE_PATH libraries_from_prefix "${CMAKE_INSTALL_PREFIX}"
        "${CMAKE_INSTALL_FULL_LIBDIR}/tdmbrec")
    configure_file(packaging/module.pc.in "${CMAKE_BINARY_DIR}/packaging/${name}.pc" @ONLY)
    install(FILES "${CMAKE_BINARY_DIR}/packaging/${name}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
endfunction()

add_pkg_config(tdmbrec-mp4mux "MP4 muxer of the recorder" "-lmp4mux")
add_pkg_config(tdmbrec-aacenc "AAC-LC encoder of the recorder" "-laacenc")
add_pkg_config(tdmbrec-recovery "Recovery of interrupted recordings"
    "-lrecovery -ljournal -lmp4mux -laac_frame -laacenc -lstdc++ -lm")
if(NOT TDMBREC_PLATFORM_LIBRARIES)
    add_pkg_config(tdmbrec "OpenMAX IL core that loads the recorder, for programs that record"
        "-Wl,-rpath,\${libdir} -lomx_core -lstdc++ -ldl -pthread")
    add_pkg_config(tdmbrec-platform "Linux stand-in for the libraries of a device"
        "-Wl,-rpath,\${libdir} -lplatform_host")
endif()

file(GLOB examples CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/examples/*.c")
install(FILES ${examples} DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" COMPONENT development)

file(GLOB pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT command)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT command)
if(TDMBREC_CLIENT)
    install(TARGETS tdmbrec RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT command)
    file(GLOB man_pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/man/*.1")
    install(FILES ${man_pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT command)
endif()
