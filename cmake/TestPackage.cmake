# Installs the build into a scratch prefix, checks that no internal header
# came along, builds the consumer project against it with find_package and
# again with pkg-config, and runs both builds: a full consumer through the
# umbrella name keldaclient and a headless one through keldaclientcore, which
# must load no widgets.
# Arguments: BUILD_DIR, CONSUMER_DIR, WORK_DIR, CONFIG_FILE; CXX_COMPILER and
# LINK_FLAGS (a list) so that a consumer of sanitizer-built libraries links
# their runtime. With PREFIX instead of BUILD_DIR, the tree installed there
# (/usr, from the Debian packages) is checked the same way.
file(REMOVE_RECURSE "${WORK_DIR}")
string(REPLACE ";" " " link_flags "${LINK_FLAGS}")

function(step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Failed: ${ARGN}\n${out}\n${err}")
    endif()
endfunction()

if(PREFIX)
    set(prefix "${PREFIX}")
else()
    set(prefix "${WORK_DIR}/prefix")
    step("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")
endif()
step("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G Ninja
     "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
     "-DCMAKE_EXE_LINKER_FLAGS=${link_flags}")
step("${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
foreach(consumer consumer consumer_core)
    step("${CMAKE_COMMAND}" -E env "KELDA_CONFIG_FILE=${CONFIG_FILE}" "${WORK_DIR}/build/${consumer}")
endforeach()
set(PROGRAMS "${WORK_DIR}/build/consumer_core")
include(${CMAKE_CURRENT_LIST_DIR}/CheckNoWidgets.cmake)
message(STATUS "The installed package builds and runs a full and a core consumer")

# Protocol internals stay inside the tree.
foreach(internal keldaxml.h xmlseparator.h requestmessages.h keldaclientsoapmessage.h keldaclient_p.h)
    if(EXISTS "${prefix}/include/kelda/${internal}")
        message(FATAL_ERROR "The internal header ${internal} was installed")
    endif()
endforeach()

# What only the library's own code uses stays out of the client's headers:
# private slots (they live in the private classes) and static data.
foreach(header keldaclient.h keldafile.h clienttreemodel.h fileselectdialog.h querydialog.h keldasaveasdlg.h)
    file(READ "${prefix}/include/kelda/${header}" text)
    if(text MATCHES "private[ \t]+(Q_SLOTS|slots)[ \t]*:|\n[ \t]*static[^(\n]*;")
        message(FATAL_ERROR "${header} declares what belongs to the library: ${CMAKE_MATCH_0}")
    endif()
endforeach()

file(GLOB pc_files "${prefix}/lib/pkgconfig/keldaclient.pc" "${prefix}/lib/*/pkgconfig/keldaclient.pc")
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
    message(FATAL_ERROR "Expected one installed keldaclient.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
get_filename_component(lib_dir "${pc_dir}" DIRECTORY)
find_program(PKG_CONFIG pkg-config)
if(NOT PKG_CONFIG)
    message(FATAL_ERROR "pkg-config is not installed (Debian package pkg-config)")
endif()

# pkg_build(<package> <program> <source>...): builds the sources with the
# flags pkg-config gives for the package, and runs the program.
function(pkg_build package program)
    execute_process(COMMAND "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${pc_dir}"
                            "${PKG_CONFIG}" --cflags --libs ${package}
                    RESULT_VARIABLE result OUTPUT_VARIABLE pc_flags ERROR_VARIABLE err
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "pkg-config does not know ${package}:\n${err}")
    endif()
    separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
    list(TRANSFORM ARGN PREPEND "${CONSUMER_DIR}/")
    step("${CXX_COMPILER}" -std=c++17 -fPIC ${ARGN} ${pc_flags} ${LINK_FLAGS} "-Wl,-rpath,${lib_dir}"
         -o "${WORK_DIR}/${program}")
    step("${CMAKE_COMMAND}" -E env "KELDA_CONFIG_FILE=${CONFIG_FILE}" "${WORK_DIR}/${program}")
endfunction()

pkg_build(keldaclient consumer-pkgconfig main.cpp headers.cpp)
pkg_build(keldaclientcore consumer_core-pkgconfig core.cpp)
set(PROGRAMS "${WORK_DIR}/consumer_core-pkgconfig")
include(${CMAKE_CURRENT_LIST_DIR}/CheckNoWidgets.cmake)
message(STATUS "The pkg-config files build and run the same consumers")
