# Writes the completion script `kelda completion SHELL` prints to OUTPUT.
# Arguments: PROGRAM, SHELL, OUTPUT.
get_filename_component(folder "${OUTPUT}" DIRECTORY)
file(MAKE_DIRECTORY "${folder}")
execute_process(COMMAND "${PROGRAM}" completion "${SHELL}"
                OUTPUT_FILE "${OUTPUT}.new" RESULT_VARIABLE result ERROR_VARIABLE error)
if(NOT result EQUAL 0)
    file(REMOVE "${OUTPUT}.new")
    message(FATAL_ERROR "kelda completion ${SHELL} failed (${result}): ${error}")
endif()
file(RENAME "${OUTPUT}.new" "${OUTPUT}")
