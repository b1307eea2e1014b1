# Installs the build into a scratch prefix, builds the consumer project
# against it with find_package and runs it.
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
