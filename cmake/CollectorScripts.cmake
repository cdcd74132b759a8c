# Tests that are Python scripts. Each finds the build by the variable COLLECTOR_BUILD, and says with
# the exit status 77 that it cannot run on this machine.

find_package(Python3 REQUIRED COMPONENTS Interpreter)

# collector_script_test(NAME SCRIPT [ARGUMENT...] [TIMEOUT s] [LABELS label] [LOCK resource])
# registers one script, with its arguments, as one test.
function(collector_script_test name script)
    cmake_parse_arguments(T "" "TIMEOUT;LABELS;LOCK" "" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 300)
    endif()
    get_filename_component(script ${script} ABSOLUTE)
    add_test(NAME ${name}
        COMMAND ${Python3_EXECUTABLE} -B ${script} ${T_UNPARSED_ARGUMENTS})
    set(properties TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77
        ENVIRONMENT "COLLECTOR_BUILD=${CMAKE_BINARY_DIR}")
    if(T_LABELS)
        list(APPEND properties LABELS ${T_LABELS})
    endif()
    if(T_LOCK)
        list(APPEND properties RESOURCE_LOCK ${T_LOCK})
    endif()
    set_tests_properties(${name} PROPERTIES ${properties})
endfunction()

# collector_method_tests(PREFIX [OPTION...])
# registers every method of every test_AREA.py of this folder as a test PREFIX.AREA.METHOD; the
# options are those of collector_script_test.
function(collector_method_tests prefix)
    file(GLOB files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/test_*.py)
    # A method that comes or goes changes the list as a file does.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})
    foreach(file ${files})
        string(REGEX REPLACE ".*/test_(.*)\\.py$" "\\1" area ${file})
        file(STRINGS ${file} lines REGEX "^class .*:|^    def test_")
        foreach(line ${lines})
            if(line MATCHES "^class ([A-Za-z0-9_]+)")
                set(class ${CMAKE_MATCH_1})
            elseif(line MATCHES "def (test_([A-Za-z0-9_]+))")
                collector_script_test(${prefix}.${area}.${CMAKE_MATCH_2} ${file}
                    ${class}.${CMAKE_MATCH_1} ${ARGN})
            endif()
        endforeach()
    endforeach()
endfunction()
