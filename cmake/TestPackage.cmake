# Installs the build into a scratch prefix, checks that no internal header
# came along, builds the consumer project against it with find_package and
# again with pkg-config, and runs both builds.
# Arguments: BUILD_DIR, CONSUMER_DIR, WORK_DIR, CONFIG_FILE; CXX_COMPILER and
# LINK_FLAGS (a list) so that a consumer of sanitizer-built libraries links
# their runtime.
file(REMOVE_RECURSE "${WORK_DIR}")
string(REPLACE ";" " " link_flags "${LINK_FLAGS}")

function(step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Failed: ${ARGN}\n${out}\n${err}")
    endif()
endfunction()

step("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix")
step("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G Ninja
     "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
     "-DCMAKE_EXE_LINKER_FLAGS=${link_flags}")
step("${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
step("${CMAKE_COMMAND}" -E env "KELDA_CONFIG_FILE=${CONFIG_FILE}" "${WORK_DIR}/build/consumer")
message(STATUS "The installed package builds and runs a consumer")

# Protocol internals stay inside the tree.
foreach(internal keldaxml.h xmlseparator.h requestmessages.h keldaclientsoapmessage.h keldaclient_p.h)
    if(EXISTS "${WORK_DIR}/prefix/include/kelda/${internal}")
        message(FATAL_ERROR "The internal header ${internal} was installed")
    endif()
endforeach()

file(GLOB_RECURSE pc_files "${WORK_DIR}/prefix/*/keldaclient.pc")
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
    message(FATAL_ERROR "Expected one installed keldaclient.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
find_program(PKG_CONFIG pkg-config)
if(NOT PKG_CONFIG)
    message(FATAL_ERROR "pkg-config is not installed (Debian package pkg-config)")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${pc_dir}"
                        "${PKG_CONFIG}" --cflags --libs keldaclient
                RESULT_VARIABLE result OUTPUT_VARIABLE pc_flags ERROR_VARIABLE err
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know keldaclient:\n${err}")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
get_filename_component(lib_dir "${pc_dir}" DIRECTORY)
step("${CXX_COMPILER}" -std=c++17 -fPIC "${CONSUMER_DIR}/main.cpp" "${CONSUMER_DIR}/headers.cpp"
     ${pc_flags} ${LINK_FLAGS} "-Wl,-rpath,${lib_dir}" -o "${WORK_DIR}/consumer-pkgconfig")
step("${CMAKE_COMMAND}" -E env "KELDA_CONFIG_FILE=${CONFIG_FILE}" "${WORK_DIR}/consumer-pkgconfig")
message(STATUS "The pkg-config files build and run the same consumer")
