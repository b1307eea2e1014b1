# The installed CMake package: find_package(KeldaClient) gives the imported
# targets of the export set, with their Qt and Boost dependencies found first.
include(CMakePackageConfigHelpers)

install(EXPORT KeldaClientTargets
    NAMESPACE KeldaClient::
    DESTINATION ${KELDA_INSTALL_CMAKEDIR}
    COMPONENT development)

configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/KeldaClientConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/KeldaClientConfig.cmake
    INSTALL_DESTINATION ${KELDA_INSTALL_CMAKEDIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/KeldaClientConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/KeldaClientConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/KeldaClientConfigVersion.cmake
    DESTINATION ${KELDA_INSTALL_CMAKEDIR}
    COMPONENT development)

# pkg-config files beside the CMake package, for builds without CMake. They
# find their prefix from their own place, so the tree can be installed or
# moved anywhere.
file(RELATIVE_PATH KELDA_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KELDA_PC_TO_PREFIX "${KELDA_PC_TO_PREFIX}")
foreach(pc keldacommon keldaclientcore keldaclientwidgets keldaclient)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT development)
endforeach()
