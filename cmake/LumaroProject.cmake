# Shared build helpers: warnings for the project's own code, sanitizer flags and test registration.
include_guard(GLOBAL)
enable_testing()

set(LUMARO_WARNINGS -Wall -Wextra -Wpedantic -Werror -Wno-unused-parameter)

if(LUMARO_SANITIZE)
  string(REPLACE ";" "," _san "${LUMARO_SANITIZE}")
  add_compile_options(-fsanitize=${_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_san})
endif()
# The thread-sanitizer build: every executable carries its own clone() (cmake/tsan_clone.cpp says
# why); lumaro_link_tsan_clone() adds it once every target exists.
if(LUMARO_SANITIZE STREQUAL "thread")
  add_library(lumaro_tsan_clone OBJECT ${CMAKE_CURRENT_LIST_DIR}/tsan_clone.cpp)
endif()
function(lumaro_link_tsan_clone dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      target_link_libraries(${target} PRIVATE lumaro_tsan_clone ${CMAKE_DL_LIBS})
    endif()
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(subdir ${subdirs})
    lumaro_link_tsan_clone(${subdir})
  endforeach()
endfunction()

# The fuzz build: every library carries libFuzzer's coverage counters; only the targets in fuzz/
# link the fuzzer itself.
if(LUMARO_FUZZ_ONLY)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Every test binary that exercises threads is labelled "concurrent"; the thread-sanitizer
# build builds and runs only those.
add_custom_target(concurrent_tests)

# lumaro_expose(TARGET SCOPE FOLDER): the headers of FOLDER, included by their path from the
# repository root ("platform/appkit/NSView.h"), and no others: TARGET's include root in the build
# tree holds a single link, to FOLDER. SCOPE is that of target_include_directories. A file that
# includes a header of a library its target does not link fails to compile, so no layer reaches
# into one it does not depend on.
function(lumaro_expose target scope folder)
  file(RELATIVE_PATH relative ${PROJECT_SOURCE_DIR} ${folder})
  set(root ${PROJECT_BINARY_DIR}/include-roots/${target})
  get_filename_component(parent ${root}/${relative} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${folder} ${root}/${relative} SYMBOLIC)
  target_include_directories(${target} ${scope} $<BUILD_INTERFACE:${root}>)
endfunction()

# lumaro_library(NAME SOURCES ... LIBS ...): a static library of the calling folder.
function(lumaro_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  lumaro_expose(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
endfunction()

# lumaro_program(NAME SOURCES ... LIBS ...)
function(lumaro_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  lumaro_expose(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()

# lumaro_test(NAME SOURCES ... LIBS ... [CONCURRENT] [DEPENDS targets...] [ENV k=v...]
#             [DEFINITIONS NAME=value...])
# A GoogleTest binary registered with CTest as one test; CONCURRENT adds the label and puts it
# into the thread-sanitizer build.
function(lumaro_test name)
  cmake_parse_arguments(ARG "CONCURRENT" "" "SOURCES;LIBS;DEPENDS;ENV;DEFINITIONS" ${ARGN})
  if(LUMARO_CONCURRENT_ONLY AND NOT ARG_CONCURRENT)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  lumaro_expose(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE ${LUMARO_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock)
  target_compile_definitions(${name} PRIVATE ${ARG_DEFINITIONS})
  if(ARG_DEPENDS)
    add_dependencies(${name} ${ARG_DEPENDS})
  endif()
  # The environment every test runs in (offscreen Qt, the build and source folders, the
  # sanitizers' options) is the test preset's: `ctest --preset NAME`.
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(ARG_ENV)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${ARG_ENV}")
  endif()
  if(ARG_CONCURRENT)
    set_tests_properties(${name} PROPERTIES LABELS concurrent)
    add_dependencies(concurrent_tests ${name})
  endif()
endfunction()

# lumaro_folder_library(NAME LIBS ...): a library of every .cpp in the calling folder, so that
# several people can add files to one folder without editing its build file.
function(lumaro_folder_library name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  lumaro_library(${name} SOURCES ${sources} LIBS ${ARG_LIBS})
endfunction()
