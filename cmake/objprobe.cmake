# Build rules shared by all folders.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

add_library(objprobe_options INTERFACE)
target_include_directories(objprobe_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(objprobe_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Wcast-align -Wundef -Werror
  # Assertions and diagnostics print paths relative to the source tree.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(objprobe_options INTERFACE -Wduplicated-cond -Wlogical-op -Wsuggest-override)
endif()
target_link_libraries(objprobe_options INTERFACE Threads::Threads)
# WalkStack names the frames of the program itself.
target_link_options(objprobe_options INTERFACE -rdynamic)

if(OBJPROBE_SANITIZE)
  target_compile_options(objprobe_options INTERFACE
    -fsanitize=${OBJPROBE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(objprobe_options INTERFACE -fsanitize=${OBJPROBE_SANITIZE})
endif()

# objprobe_library(NAME SOURCES file... DEPENDS target...)
#
# One library per folder, named after the folder's path with underscores. The objects go into the
# program one by one and not through an archive: what registers itself before main would be dropped
# from an archive that nobody calls into. DEPENDS names such libraries or any other target.
function(objprobe_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_link_libraries(${name}_objects PUBLIC objprobe_options)
  add_library(${name} INTERFACE)
  target_link_libraries(${name} INTERFACE objprobe_options)
  target_sources(${name} INTERFACE $<TARGET_OBJECTS:${name}_objects>)
  foreach(dependency IN LISTS ARG_DEPENDS)
    target_link_libraries(${name} INTERFACE ${dependency})
    if(TARGET ${dependency}_objects)
      target_link_libraries(${name}_objects PUBLIC
        ${dependency}_objects)
    else()
      target_link_libraries(${name}_objects PUBLIC ${dependency})
    endif()
  endforeach()
endfunction()

# objprobe_program(NAME SOURCES file... DEPENDS target...)
function(objprobe_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE objprobe_options ${ARG_DEPENDS})
endfunction()

# objprobe_module(NAME SOURCES file... OBJECTS library...)
#
# A library that programs load on demand from ../lib beside their folder: it keeps what is dear at
# start, and seldom needed, out of them. It holds the objects of the named libraries alone and takes
# everything else from the program.
function(objprobe_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;OBJECTS" ${ARGN})
  add_library(${name} MODULE ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES
    PREFIX "" SUFFIX ".so" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  foreach(library IN LISTS ARG_OBJECTS)
    set_target_properties(${library}_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
    target_link_libraries(${name} PRIVATE objprobe_options ${library}_objects)
  endforeach()
endfunction()

# objprobe_test(NAME [THREADS] SOURCES file... DEPENDS target...)
#
# One GoogleTest program per tested folder. THREADS: it shares data between threads and is worth a
# run under the thread sanitizer; the others are left out of that build.
function(objprobe_test name)
  cmake_parse_arguments(ARG "THREADS" "" "SOURCES;DEPENDS" ${ARGN})
  if(OBJPROBE_SANITIZE MATCHES "thread" AND NOT ARG_THREADS)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE objprobe_options ${ARG_DEPENDS} GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
