# The installed package: the host as a shared library, the framework for the program's own copy,
# the headers a host needs, the render module and the command line, with a CMake package
# (quorv::host, quorv::framework) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
find_package(TBB REQUIRED)

# libquorv_host.so: the services (the image services included), the loader, the picture writer
# and the batch entry points, with a framework copy of its own. It exports only the quorv::host
# API (host/exports.map) and binds its own symbols to itself, like a module.
add_library(quorv_host_shared SHARED
    $<TARGET_OBJECTS:quorv_host_objects>
    $<TARGET_OBJECTS:quorv_host_image_objects>
    $<TARGET_OBJECTS:quorv_batch>
    $<TARGET_OBJECTS:quorv_framework>)
target_link_libraries(quorv_host_shared PRIVATE PkgConfig::OIIO PkgConfig::LCMS2 TBB::tbb ${CMAKE_DL_LIBS})
target_link_options(quorv_host_shared PRIVATE -Wl,-Bsymbolic -Wl,--no-undefined
                    -Wl,--version-script=${PROJECT_SOURCE_DIR}/host/exports.map)
set_property(TARGET quorv_host_shared APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/host/exports.map)
set_target_properties(quorv_host_shared PROPERTIES
    OUTPUT_NAME quorv_host EXPORT_NAME host
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(quorv_host_shared INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/quorv/interfaces>)

# The framework for pkg-config users, as an archive to link whole.
add_library(quorv_framework_archive STATIC $<TARGET_OBJECTS:quorv_framework>)
set_target_properties(quorv_framework_archive PROPERTIES OUTPUT_NAME quorv_framework)

# Headers: the framework's, the host's, and the render interfaces a host calls. The latter go to
# quorv/interfaces/render/ and are included as "render/...", as in the source tree, through the
# include/quorv/interfaces folder (include/quorv itself cannot be a root: quorv/string.h would
# hide the C library's <string.h>).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/framework/include/quorv
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/quorv
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
set(QUORV_RENDER_INTERFACE_HEADERS
    cameras/camera.h cameras/renderray.h cameras/shadingpoint.h
    legacy_renderers/bsdf_legacy.h legacy_renderers/microfacetdistributioncaches.h
    legacy_renderers/bsdfdata.h legacy_renderers/clothweavepattern.h
    photometric/ies.h textures/texture.h preview/previewimage.h)
foreach(header IN LISTS QUORV_RENDER_INTERFACE_HEADERS)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/render/${header}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorv/interfaces/render/${folder})
endforeach()

install(TARGETS quorv_host_shared EXPORT quorvTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(quorv_framework PROPERTIES EXPORT_NAME framework)
install(TARGETS quorv_framework EXPORT quorvTargets
        OBJECTS DESTINATION ${CMAKE_INSTALL_LIBDIR}/quorv/framework)
install(TARGETS quorv_framework_archive ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The module and the command line, in the layout the command line expects (../lib beside bin).
install(TARGETS quorv_render LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The intersector module beside it: `quorv intersect` loads it from there.
install(TARGETS quorv_intersect LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The preview providers beside it, where `quorv preview` looks for them.
install(TARGETS quorv_previewproviders LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS quorv RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The resources beside bin/, where the host finds them by default (PREFIX/resources).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/resources/ DESTINATION resources)

install(EXPORT quorvTargets NAMESPACE quorv:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorv)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quorvConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/quorvConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorv)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/quorvConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/quorvConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorv)
configure_file(${PROJECT_SOURCE_DIR}/cmake/quorv.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quorv.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
