# Shared build helpers: warnings for the project's own code, sanitizer flags and test registration.
include_guard(GLOBAL)
enable_testing()

set(LUMARO_WARNINGS -Wall -Wextra -Wpedantic -Werror -Wno-unused-parameter)

if(LUMARO_SANITIZE)
  string(REPLACE ";" "," _san "${LUMARO_SANITIZE}")
  add_compile_options(-fsanitize=${_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_san})
endif()
# The fuzz build: every library carries libFuzzer's coverage counters; only the targets in fuzz/
# link the fuzzer itself.
if(LUMARO_FUZZ_ONLY)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Every test binary that exercises threads is labelled "concurrent"; the thread-sanitizer
# build builds and runs only those.
add_custom_target(concurrent_tests)
set(LUMARO_TSAN_SUPPRESSIONS ${PROJECT_SOURCE_DIR}/cmake/tsan.supp)

# lumaro_library(NAME SOURCES ... LIBS ...)
function(lumaro_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
endfunction()

# lumaro_program(NAME SOURCES ... LIBS ...)
function(lumaro_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()

# lumaro_test(NAME SOURCES ... LIBS ... [CONCURRENT] [DEPENDS targets...] [ENV k=v...])
# A GoogleTest binary registered with CTest as one test; CONCURRENT adds the label and puts it
# into the thread-sanitizer build.
function(lumaro_test name)
  cmake_parse_arguments(ARG "CONCURRENT" "" "SOURCES;LIBS;DEPENDS;ENV" ${ARGN})
  if(LUMARO_CONCURRENT_ONLY AND NOT ARG_CONCURRENT)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock)
  if(ARG_DEPENDS)
    add_dependencies(${name} ${ARG_DEPENDS})
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set(env QT_QPA_PLATFORM=offscreen LUMARO_BUILD_DIR=${PROJECT_BINARY_DIR}
      LUMARO_SOURCE_DIR=${PROJECT_SOURCE_DIR}
      TSAN_OPTIONS=suppressions=${LUMARO_TSAN_SUPPRESSIONS}:halt_on_error=1:second_deadlock_stack=1
      ${ARG_ENV})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "${env}" TIMEOUT 300)
  if(ARG_CONCURRENT)
    set_tests_properties(${name} PROPERTIES LABELS concurrent)
    add_dependencies(concurrent_tests ${name})
  endif()
endfunction()

# lumaro_folder_library(NAME LIBS ... [OPTIONAL_LIBS ...]): a library of every .cpp in the calling
# folder, so that several people can add files to one folder without editing its build file.
# OPTIONAL_LIBS are linked when they exist as targets by then.
function(lumaro_folder_library name)
  cmake_parse_arguments(ARG "" "" "LIBS;OPTIONAL_LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()  # nothing written here yet
  endif()
  set(libs ${ARG_LIBS})
  foreach(lib ${ARG_OPTIONAL_LIBS})
    if(TARGET ${lib})
      list(APPEND libs ${lib})
    endif()
  endforeach()
  lumaro_library(${name} SOURCES ${sources} LIBS ${libs})
endfunction()

# Adds every subfolder of the calling folder that has a CMakeLists.txt.
function(lumaro_add_subfolders)
  file(GLOB children RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*)
  list(SORT children)
  foreach(child ${children})
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()
