# Helpers that give every subsystem library, tool, test and benchmark the same settings.

set(VELL_WARNING_FLAGS -Wall -Wextra -Wpedantic -Wshadow)
if(VELL_WARNINGS_AS_ERRORS)
    list(APPEND VELL_WARNING_FLAGS -Werror)
endif()

# RealtimeSanitizer (realtime) needs Clang 19 or later and stands alone. Clang 19 ships its
# runtime but not yet the driver flag: there the runtime is linked whole into every executable
# (its interceptors must be the process's malloc and pthread functions, so never into the shared
# library) and exported so shared libraries' calls reach them. VELL_RTSAN tells the test guard.
set(_vell_sanitize "${VELL_SANITIZE}")
if("realtime" IN_LIST _vell_sanitize)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR CMAKE_CXX_COMPILER_VERSION VERSION_LESS 19)
        message(FATAL_ERROR "VELL_SANITIZE=realtime needs Clang 19 or later (clang++-19)")
    endif()
    list(LENGTH _vell_sanitize _vell_sanitize_count)
    if(NOT _vell_sanitize_count EQUAL 1)
        message(FATAL_ERROR "VELL_SANITIZE=realtime cannot be combined with other sanitizers")
    endif()
    add_compile_definitions(VELL_RTSAN=1)
    # Clang-only findings the GCC build does not report: GCC 12's own headers use deprecated
    # get_temporary_buffer (stable_sort), and two lints GCC lacks.
    list(APPEND VELL_WARNING_FLAGS -Wno-deprecated-declarations -Wno-unused-private-field
        -Wno-unused-lambda-capture)
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_LINK_OPTIONS -fsanitize=realtime)
    check_cxx_source_compiles("int main() { return 0; }" VELL_HAVE_FSANITIZE_REALTIME)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
    if(NOT VELL_HAVE_FSANITIZE_REALTIME)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-resource-dir
            OUTPUT_VARIABLE _vell_resource_dir OUTPUT_STRIP_TRAILING_WHITESPACE)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
            OUTPUT_VARIABLE _vell_runtime_dir OUTPUT_STRIP_TRAILING_WHITESPACE)
        find_file(VELL_RTSAN_RUNTIME
            NAMES libclang_rt.rtsan.a libclang_rt.rtsan-${CMAKE_SYSTEM_PROCESSOR}.a
            PATHS ${_vell_runtime_dir} ${_vell_resource_dir}/lib/linux NO_DEFAULT_PATH REQUIRED)
        set(_vell_sanitize "")
        add_compile_options(-fno-omit-frame-pointer)
        set(_vell_exe "$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>")
        add_link_options(
            "$<${_vell_exe}:-Wl,--whole-archive,${VELL_RTSAN_RUNTIME},--no-whole-archive>"
            "$<${_vell_exe}:-Wl,--export-dynamic>")
    endif()
endif()
if(_vell_sanitize)
    string(REPLACE ";" "," _vell_sanitizers "${_vell_sanitize}")
    add_compile_options(-fsanitize=${_vell_sanitizers} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${_vell_sanitizers})
endif()

# Where the resources are found when running from the build tree.
set(VELL_BUILD_RESOURCE_DIR ${PROJECT_SOURCE_DIR}/resources)
set(VELL_INSTALL_RESOURCE_DIR ${CMAKE_INSTALL_FULL_DATADIR}/vellaudio)

# Every subsystem library registers itself here; the shared library links them all.
set_property(GLOBAL PROPERTY VELL_SUBSYSTEM_LIBRARIES "")

# vell_add_subsystem(NAME SOURCES ... [DEPENDS ...] [PUBLIC_LIBS ...] [PRIVATE_LIBS ...])
# Makes a static, position-independent library vell_NAME that the shared library absorbs
# whole. Tests link the subsystem libraries they need, so one subsystem builds without the rest.
function(vell_add_subsystem name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    add_library(vell_${name} STATIC ${ARG_SOURCES})
    target_include_directories(vell_${name}
        PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
    target_compile_options(vell_${name} PRIVATE ${VELL_WARNING_FLAGS})
    target_compile_definitions(vell_${name} PRIVATE
        VELL_BUILD_RESOURCE_DIR="${VELL_BUILD_RESOURCE_DIR}"
        VELL_INSTALL_RESOURCE_DIR="${VELL_INSTALL_RESOURCE_DIR}")
    foreach(dep IN LISTS ARG_DEPENDS)
        target_link_libraries(vell_${name} PUBLIC vell_${dep})
    endforeach()
    target_link_libraries(vell_${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
    set_property(GLOBAL APPEND PROPERTY VELL_SUBSYSTEM_LIBRARIES vell_${name})
endfunction()

# vell_add_test(NAME SOURCES ... LIBS ...): one GoogleTest executable registered with CTest.
# Every test binary carries the real-time guard (allocation and lock counting).
function(vell_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_compile_options(${name} PRIVATE ${VELL_WARNING_FLAGS})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} vell_testsupport GTest::gtest GTest::gmock
        Threads::Threads)
    target_compile_definitions(${name} PRIVATE
        VELL_SOURCE_DIR="${PROJECT_SOURCE_DIR}" VELL_BINARY_DIR="${PROJECT_BINARY_DIR}")
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 600)
    endif()
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "VELL_RESOURCE_DIR=${VELL_BUILD_RESOURCE_DIR}" LABELS "${ARG_LABELS}")
endfunction()

# vell_add_bench(NAME SOURCES ... LIBS ...): a Google Benchmark executable (never run by CTest).
function(vell_add_bench name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_compile_options(${name} PRIVATE ${VELL_WARNING_FLAGS})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} benchmark::benchmark Threads::Threads)
    target_compile_definitions(${name} PRIVATE VELL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endfunction()
