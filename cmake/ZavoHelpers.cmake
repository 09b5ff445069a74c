# Warnings and sanitizers apply to the project's own targets only, never to
# the Qt, FFmpeg or OpenCV headers (those are SYSTEM includes).
add_library(zavo_build_flags INTERFACE)
target_compile_options(zavo_build_flags INTERFACE -Wall -Wextra -Wno-missing-field-initializers)
# What each mutex guards is written as clang annotations (base/ThreadSafety.h);
# clang builds refuse code that touches guarded state without the lock.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(zavo_build_flags INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(ZAVO_SANITIZE STREQUAL "address")
  target_compile_options(zavo_build_flags INTERFACE
    -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(zavo_build_flags INTERFACE -fsanitize=address,undefined)
elseif(ZAVO_SANITIZE STREQUAL "thread")
  target_compile_options(zavo_build_flags INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(zavo_build_flags INTERFACE -fsanitize=thread)
elseif(ZAVO_SANITIZE STREQUAL "fuzzer")
  # clang only. Libraries carry the fuzzer's coverage hooks but not its
  # main(); the fuzz executables in fuzz/ link -fsanitize=fuzzer themselves.
  target_compile_options(zavo_build_flags INTERFACE
    -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(zavo_build_flags INTERFACE -fsanitize=address,undefined)
elseif(NOT ZAVO_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZAVO_SANITIZE must be empty, 'address', 'thread' or 'fuzzer'")
endif()

set(ZAVO_TEST_DATA_DIR "${PROJECT_SOURCE_DIR}/tests/data")

# Every folder is reached by its name ("base/Error.h"), but only from targets
# that link the folder's target: each target sees an include root of its own
# holding links to its folder and to the folders of what it links. An upward
# include (recording/ reaching into camera-screen/) therefore fails to build.
# zavo_include_root(<target> <folder>...): give <target> its root and make
# <folder> visible to it and to everything that links it.
function(zavo_include_root target)
  set(root ${CMAKE_BINARY_DIR}/include-roots/${target})
  foreach(folder ${ARGN})
    get_filename_component(parent ${root}/${folder} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
  endforeach()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_include_directories(${target} INTERFACE $<BUILD_INTERFACE:${root}>)
  else()
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${root}>)
  endif()
endfunction()

# zavo_add_library(<name> SUBSYSTEM <folder> SOURCES ... PUBLIC_HEADERS ... LIBS ...)
# One shared library per layer. Public headers are installed under
# include/ZavoCamera/<folder>/, where hosts include them by the same name.
# Symbols are hidden unless marked ZAVO_EXPORT (base/ZavoExport.h): what the
# library offers other libraries, the suites and hosts is chosen, not every
# inline function and helper it happens to define.
function(zavo_add_library name)
  cmake_parse_arguments(ARG "" "SUBSYSTEM" "SOURCES;PUBLIC_HEADERS;LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES} ${ARG_PUBLIC_HEADERS})
  add_library(ZavoCamera::${name} ALIAS ${name})
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ZavoCamera>)
  if(NOT ARG_SUBSYSTEM STREQUAL ".")
    zavo_include_root(${name} ${ARG_SUBSYSTEM})
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_LIBS} PRIVATE zavo_build_flags ${ARG_PRIVATE_LIBS})
  # The public headers are C++20 (defaulted comparisons, MediaTime's <=>): a
  # host linking any library gets the standard with it rather than a wall of
  # errors from a C++17 default.
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  zavo_install_headers(${ARG_SUBSYSTEM} ${ARG_PUBLIC_HEADERS})
  install(TARGETS ${name} EXPORT ZavoCameraTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT ${ZAVO_COMPONENT_RUNTIME} NAMELINK_COMPONENT ${ZAVO_COMPONENT_DEV}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${ZAVO_COMPONENT_DEV})
endfunction()

# zavo_add_part(<name> FOLDER <folder> LIBS ... PUBLIC_HEADERS ...
#               [SOURCES ...] [EXCLUDE ...]): one folder of the component as an
# object library, with the layers and parts it may use declared in LIBS; the
# component library links every part. A folder holds one part unless SOURCES
# names the files of a smaller one and EXCLUDE keeps them out of the rest.
# Only the headers named in PUBLIC_HEADERS are installed.
function(zavo_add_part name)
  cmake_parse_arguments(ARG "" "FOLDER" "LIBS;PUBLIC_HEADERS;SOURCES;EXCLUDE" ${ARGN})
  if(ARG_SOURCES)
    set(sources ${ARG_SOURCES})
    set(headers)
  else()
    zavo_glob_sources(sources headers)
    foreach(file ${ARG_EXCLUDE})
      list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${file})
      list(REMOVE_ITEM headers ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    endforeach()
  endif()
  add_library(${name} OBJECT ${sources} ${headers})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  zavo_include_root(${name} ${ARG_FOLDER})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS} PRIVATE zavo_build_flags)
  zavo_install_headers(${ARG_FOLDER} ${ARG_PUBLIC_HEADERS})
endfunction()

# zavo_add_sources(<target> <subsystem> SOURCES ... PUBLIC_HEADERS ...):
# for a subfolder that contributes to a library made elsewhere.
function(zavo_add_sources target subsystem)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_HEADERS" ${ARGN})
  target_sources(${target} PRIVATE ${ARG_SOURCES} ${ARG_PUBLIC_HEADERS})
  zavo_install_headers(${subsystem} ${ARG_PUBLIC_HEADERS})
endfunction()

# zavo_install_headers(<folder> <header>...): install headers of <folder>
# (named relative to the current source folder) under
# include/ZavoCamera/<folder>/, where hosts include them by the same name as
# the tree does. Installing is deliberate: a header is part of the surface
# hosts build against only when it is named here, and a private one (*_p.h)
# never is.
function(zavo_install_headers folder)
  foreach(header ${ARGN})
    get_filename_component(path ${header} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    if(path MATCHES "_p\\.h$")
      message(FATAL_ERROR "${path}: a private header is never installed")
    endif()
    if(NOT EXISTS ${path})
      message(FATAL_ERROR "${path}: no such public header")
    endif()
    install(FILES ${path} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ZavoCamera/${folder}
      COMPONENT ${ZAVO_COMPONENT_DEV})
    set_property(GLOBAL APPEND PROPERTY ZAVO_PUBLIC_HEADERS "${folder}|${path}")
  endforeach()
endfunction()

# zavo_add_test(<name> SOURCES ... LIBS ...): one Qt Test executable, run
# offscreen by CTest with a private HOME so that Documents is a scratch folder.
# Under ThreadSanitizer every suite shares tests/tsan.supp, under LeakSanitizer
# tests/lsan.supp (third-party code only, the demo's X session in Xvfb); die_after_fork=0
# because several suites start ffmpeg or ffprobe through QProcess, which forks
# a process that already has threads (the child only calls exec).
function(zavo_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zavo_build_flags Qt6::Test ${ARG_LIBS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  target_compile_definitions(${name} PRIVATE
    ZAVO_TEST_DATA_DIR="${ZAVO_TEST_DATA_DIR}")
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${ARG_TIMEOUT}
    LABELS "${ARG_LABELS}"
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_LOGGING_RULES=qt.qpa.*=false;HOME=${CMAKE_CURRENT_BINARY_DIR}/home-${name};XDG_CONFIG_HOME=${CMAKE_CURRENT_BINARY_DIR}/home-${name}/.config;ASAN_OPTIONS=detect_leaks=1:abort_on_error=0;LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp;UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1;TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:suppressions=${PROJECT_SOURCE_DIR}/tests/tsan.supp")
endfunction()

# zavo_glob_sources(<out-sources> <out-headers>): the .cpp files and all the
# headers of the current folder, for the target's sources (moc and IDEs see
# them); which headers are installed is listed by name in PUBLIC_HEADERS.
function(zavo_glob_sources out_sources out_headers)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  set(${out_sources} ${sources} PARENT_SCOPE)
  set(${out_headers} ${headers} PARENT_SCOPE)
endfunction()
