# Fails when one of PROGRAMS (a list of executables) loads Qt Widgets, also
# through a library it links: the headless programs must run where no widget
# library is installed, and must not pay for loading one.
foreach(program IN LISTS PROGRAMS)
    execute_process(COMMAND ldd "${program}" RESULT_VARIABLE result OUTPUT_VARIABLE libraries ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "ldd ${program} failed:\n${err}")
    endif()
    if(libraries MATCHES "lib(Qt5Widgets|keldaclientwidgets)[^ ]*")
        message(FATAL_ERROR "${program} loads ${CMAKE_MATCH_0}")
    endif()
endforeach()
list(LENGTH PROGRAMS count)
message(STATUS "${count} headless programs load no widgets")
