# Compiler settings that every target of the project shares.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_C_STANDARD 99)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

find_program(COLLECTOR_CCACHE ccache)
if(COLLECTOR_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER ${COLLECTOR_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${COLLECTOR_CCACHE})
endif()

# The tests' scripts need nothing but the system's own Python; a wrapper in front of it, as version
# managers put into the path, costs time with each test.
if(NOT Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
    set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python of the tests")
endif()

find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)

include_directories(${CMAKE_SOURCE_DIR})
add_compile_options(-Wall -Wextra -Wpointer-arith -Wcast-qual
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> -fno-strict-aliasing)
if(COLLECTOR_WERROR)
    add_compile_options(-Werror)
endif()

if(COLLECTOR_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(COLLECTOR_FUZZ)
    # Coverage feedback is wanted from the parsers, not only from the targets that call them.
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(COLLECTOR_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread)
    add_link_options(-fsanitize=thread)
else()
    # A collector reads what anyone may write: every binary carries the hardening that costs
    # next to nothing at run time, as far as the compiler knows it. What it knows is what
    # tests/hardening then looks for in the binaries.
    include(CheckCXXCompilerFlag)
    include(CheckLinkerFlag)
    include(CheckPIESupported)
    set(COLLECTOR_HARDENING)
    foreach(row "canaries -fstack-protector-strong" "clash -fstack-clash-protection"
            "cet -fcf-protection=full")
        string(REPLACE " " ";" row ${row})
        list(POP_FRONT row property flag)
        check_cxx_compiler_flag(${flag} COLLECTOR_FLAG_${property})
        if(COLLECTOR_FLAG_${property})
            add_compile_options(${flag})
            list(APPEND COLLECTOR_HARDENING ${property})
        endif()
    endforeach()
    # No trace of it is left in a binary that could be looked for.
    list(REMOVE_ITEM COLLECTOR_HARDENING clash)
    # The marks of the other architectures' schemes are not the ones looked for.
    if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        list(REMOVE_ITEM COLLECTOR_HARDENING cet)
    endif()
    add_compile_options($<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
    list(APPEND COLLECTOR_HARDENING fortify)
    set(hardened_link -Wl,-z,relro,-z,now,-z,noexecstack)
    check_linker_flag(CXX ${hardened_link} COLLECTOR_FLAG_link)
    if(COLLECTOR_FLAG_link)
        add_link_options(${hardened_link})
        list(APPEND COLLECTOR_HARDENING relro now noexecstack)
    endif()
    check_pie_supported(LANGUAGES C CXX)
    if(CMAKE_CXX_LINK_PIE_SUPPORTED)
        list(APPEND COLLECTOR_HARDENING pie)
    endif()
endif()

# collector_test(NAME SOURCES a.cpp ... LIBRARIES x y [LABELS ...] [TIMEOUT s] [LOCK resource]
#                [SERIAL] [ENVIRONMENT a=b ...])
# builds one GoogleTest program and registers each of its cases with ctest.
function(collector_test name)
    cmake_parse_arguments(T "SERIAL" "TIMEOUT;LOCK" "SOURCES;LIBRARIES;LABELS;ENVIRONMENT" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE ${T_LIBRARIES} GTest::gmock GTest::gtest_main
        Threads::Threads)
    # Test code runs once; half of its compile time would go into making it fast. An unbraced if
    # in front of an assertion is safe: the macros take care of their else.
    target_compile_options(${name} PRIVATE -O1 -g1 -Wno-dangling-else)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    set(properties TIMEOUT ${T_TIMEOUT})
    if(T_LABELS)
        list(APPEND properties LABELS "${T_LABELS}")
    endif()
    if(T_ENVIRONMENT)
        list(APPEND properties ENVIRONMENT "${T_ENVIRONMENT}")
    endif()
    if(T_LOCK)
        list(APPEND properties RESOURCE_LOCK ${T_LOCK})
    endif()
    if(T_SERIAL)
        list(APPEND properties RUN_SERIAL TRUE)
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 120
        PROPERTIES ${properties})
endfunction()
