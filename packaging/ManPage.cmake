# Makes a gzipped man page from a program's --help with help2man.
# Arguments: HELP2MAN, PROGRAM, SECTION, SUMMARY (the NAME line), INCLUDE (a
# help2man include file), VERSION, OUTPUT, and COMMANDS (non-empty: append
# the --help of every command that PROGRAM --help lists under "Commands:").

get_filename_component(folder "${PROGRAM}" DIRECTORY)
get_filename_component(name "${PROGRAM}" NAME)
get_filename_component(work "${OUTPUT}" DIRECTORY)

# The defaults that --help shows depend on who runs it and where: show
# them as a reader would say them, and keep the builder's settings out.
set(environment
    --unset=KELDA_HOST --unset=KELDA_PORT --unset=KELDA_USER --unset=KELDA_TRACE_FILE --unset=KELDA_TRACE_MASK
    --unset=XDG_DATA_HOME "PATH=${folder}:$ENV{PATH}" "HOME=~" "USER=the login name" LC_ALL=C.UTF-8
    QT_QPA_PLATFORM=offscreen KELDA_CONFIG_FILE=/nonexistent/kelda.ini)

function(run)
    execute_process(COMMAND "${CMAKE_COMMAND}" -E env ${environment} ${ARGN}
                    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Failed (${result}): ${ARGN}\n${out}\n${err}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()

# roff needs backslashes and line-leading dots and quotes escaped.
function(roff_text text variable)
    string(REPLACE "\\" "\\e" text "${text}")
    string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
    set(${variable} "${text}" PARENT_SCOPE)
endfunction()

set(includes --include "${INCLUDE}")
if(COMMANDS)
    run("${name}" --help)
    string(REGEX MATCH "\nCommands:\n(([ ]+[^\n]*\n)+)" listing "${out}")
    string(REGEX MATCHALL "\n  [a-z]+" commands "\n${CMAKE_MATCH_1}")
    if(NOT commands)
        message(FATAL_ERROR "${name} --help lists no commands")
    endif()
    set(section "[Commands in detail]\n")
    foreach(command IN LISTS commands)
        string(STRIP "${command}" command)
        run("${name}" ${command} --help)
        roff_text("${out}" text)
        string(APPEND section ".SS ${command}\n.nf\n${text}.fi\n")
    endforeach()
    file(WRITE "${work}/${name}-commands.h2m" "${section}")
    list(APPEND includes --include "${work}/${name}-commands.h2m")
endif()

# Programs without --version get it from the build.
set(version)
execute_process(COMMAND "${CMAKE_COMMAND}" -E env ${environment} "${name}" --version
                RESULT_VARIABLE has_version OUTPUT_QUIET ERROR_QUIET)
if(NOT has_version EQUAL 0)
    set(version "--version-string=${VERSION}")
endif()

string(REGEX REPLACE "\\.gz$" "" page "${OUTPUT}")
run("${HELP2MAN}" --no-info --section "${SECTION}" --name "${SUMMARY}" ${includes} ${version}
    --output "${page}" "${name}")
execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "gzip ${page} failed")
endif()
