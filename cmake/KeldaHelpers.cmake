# Shared build helpers.

set(KELDA_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kelda)
set(KELDA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KeldaClient)
# Installed libraries find each other, and installed programs find them, from
# wherever the prefix is. Packages put them where the loader looks anyway.
if(NOT KELDA_DEBIAN_PACKAGES)
    set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

# kelda_install_library(<target> <public header>...)
# Installs a library into the package's export set and its public headers.
# The shared library and its SONAME link are in the component "libraries",
# what only a build needs in "development".
function(kelda_install_library target)
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    install(TARGETS ${target} EXPORT KeldaClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT libraries
        INCLUDES DESTINATION ${KELDA_INSTALL_INCLUDEDIR})
    if(ARGN)
        install(FILES ${ARGN} DESTINATION ${KELDA_INSTALL_INCLUDEDIR} COMPONENT development)
    endif()
endfunction()

# kelda_add_reference_headers(<header>...)
# Adds installed headers, relative to the current source folder, to the API
# reference (docs/); the host framework's stand-ins are not part of it.
function(kelda_add_reference_headers)
    foreach(header IN LISTS ARGN)
        set_property(GLOBAL APPEND PROPERTY KELDA_REFERENCE_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/${header})
    endforeach()
endfunction()

# kelda_add_test(<name> SOURCES <file>... [LIBS <lib>...])
# A QtTest executable run by CTest. Every test gets its own configuration file
# path (absent until the test writes it) so that no user configuration leaks in,
# the offscreen platform for widgets, and the default trace mask.
function(kelda_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE Qt5::Test ${ARG_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        TIMEOUT 300
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;KELDA_CONFIG_FILE=${CMAKE_CURRENT_BINARY_DIR}/${name}.ini;KELDA_TRACE_MASK=0x20;KELDA_TRACE_FILE=")
endfunction()
