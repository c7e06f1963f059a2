# What every folder of this project shares: compiler settings, dependencies, and the functions that
# turn a folder into a library or a test program.

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()
find_program(LUND_CCACHE ccache)
if(LUND_CCACHE)
  # Without these leniencies it doesn't keep what was compiled by a precompiled header.
  set(launcher ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${LUND_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
endif()

# The two dependencies that scripts/setup builds lie in its prefix.
if(WIN32)
  set(LUND_PLATFORM windows)
else()
  set(LUND_PLATFORM linux)
endif()
execute_process(
  COMMAND ${CMAKE_SOURCE_DIR}/scripts/setup prefix ${LUND_PLATFORM}
  OUTPUT_VARIABLE LUND_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

add_library(lund_options INTERFACE)
target_include_directories(lund_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(lund_options INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(LUND_WERROR)
  target_compile_options(lund_options INTERFACE -Werror)
endif()
# Of the optimiser's flow analyses these see errors in the standard library's own containers (GCC
# bugs 105329, 105651, 107852); the sanitizers find real ones.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(lund_options INTERFACE
    -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-restrict)
endif()
if(LUND_SANITIZE)
  add_compile_options(-fsanitize=${LUND_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LUND_SANITIZE})
endif()
if(LUND_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
# What Debian's dpkg-buildflags give with hardening=+all, and said here so that what is packaged is
# what was tested. The sanitizers bring checks of their own, which these would hide errors from.
# Binding at the start (now) keeps secrets off the stack, too: a function that is bound by its first
# call has the vector registers saved there meanwhile, and in them is what the last copy left.
if(NOT WIN32 AND NOT LUND_SANITIZE)
  add_compile_options(-fPIE -fstack-protector-strong -Wformat -Werror=format-security
    -Wdate-time -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  add_link_options(-pie -Wl,-z,relro,-z,now)
endif()
find_package(Threads REQUIRED)
target_link_libraries(lund_options INTERFACE Threads::Threads)

# What most files include of the standard library, read once for all of them; each includes what it
# uses all the same, which scripts/lint sees, as it has no such help. Whoever uses libpulse, SDL or
# Google Test defines _REENTRANT, and what is read once must be read the same by all.
if(NOT WIN32)
  add_compile_definitions(_REENTRANT)
endif()
file(CONFIGURE OUTPUT standard_headers.cpp CONTENT "")
add_library(standard_headers OBJECT ${CMAKE_CURRENT_BINARY_DIR}/standard_headers.cpp)
target_link_libraries(standard_headers PRIVATE lund_options)
target_precompile_headers(standard_headers PRIVATE
  <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstring> <filesystem>
  <functional> <map> <memory> <mutex> <optional> <span> <string> <string_view> <thread> <utility>
  <vector>)

add_library(monocypher INTERFACE)
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND AND NOT WIN32)
  pkg_check_modules(MONOCYPHER QUIET IMPORTED_TARGET monocypher>=4)
endif()
if(MONOCYPHER_FOUND)
  target_link_libraries(monocypher INTERFACE PkgConfig::MONOCYPHER)
else()
  target_include_directories(monocypher SYSTEM INTERFACE ${LUND_PREFIX}/include)
  target_link_libraries(monocypher INTERFACE ${LUND_PREFIX}/lib/libmonocypher.a)
endif()

if(WIN32)
  # Import libraries by their paths: the programs are linked statically but for these.
  add_library(ffmpeg INTERFACE)
  target_include_directories(ffmpeg SYSTEM INTERFACE ${LUND_PREFIX}/include)
  foreach(name avcodec swscale avutil)
    target_link_libraries(ffmpeg INTERFACE ${LUND_PREFIX}/lib/lib${name}.dll.a)
  endforeach()
  file(GLOB libraries ${LUND_PREFIX}/bin/*.dll)
  file(COPY ${libraries} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})  # where a program looks
  list(APPEND CMAKE_PREFIX_PATH ${LUND_PREFIX})
  list(APPEND CMAKE_FIND_ROOT_PATH ${LUND_PREFIX})
  # Headers that are the same for every platform are taken of this machine's, and no others of them.
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/headers)
  foreach(name nlohmann CLI)
    file(CREATE_LINK /usr/include/${name} ${CMAKE_BINARY_DIR}/headers/${name} SYMBOLIC)
  endforeach()
  foreach(name nlohmann_json::nlohmann_json CLI11::CLI11)
    add_library(${name} INTERFACE IMPORTED)
    target_include_directories(${name} SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/headers)
  endforeach()
else()
  set(ENV{PKG_CONFIG_PATH} "${LUND_PREFIX}/lib/pkgconfig:$ENV{PKG_CONFIG_PATH}")
  pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavcodec>=61.19 libavutil libswscale)
  # The libraries are static, so what they need in turn is to be linked too.
  add_library(ffmpeg INTERFACE)
  target_include_directories(ffmpeg SYSTEM INTERFACE ${FFMPEG_STATIC_INCLUDE_DIRS})
  target_link_directories(ffmpeg INTERFACE ${FFMPEG_STATIC_LIBRARY_DIRS})
  target_link_libraries(ffmpeg INTERFACE ${FFMPEG_STATIC_LIBRARIES})
  pkg_check_modules(XCB REQUIRED IMPORTED_TARGET
    xcb xcb-shm xcb-damage xcb-xfixes xcb-randr xcb-xtest xcb-xinput)
  pkg_check_modules(XCB_SCREENSAVER REQUIRED IMPORTED_TARGET xcb-screensaver)
  pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET libpulse)
  find_package(PNG REQUIRED)
  find_package(nlohmann_json REQUIRED)
  find_package(CLI11 REQUIRED)
endif()

# For tests and fuzz targets that make PNGs of their own.
set(ZLIB_USE_STATIC_LIBS ${WIN32})
find_package(ZLIB REQUIRED)

# lund_version_header(FOLDER): "FOLDER/version.h" for the programs of the calling folder.
execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} describe --always --dirty
  OUTPUT_VARIABLE LUND_BUILD_ID OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT LUND_BUILD_ID)
  set(LUND_BUILD_ID "no revision")
endif()
function(lund_version_header folder)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.h.in
    ${CMAKE_BINARY_DIR}/generated/${folder}/version.h @ONLY)
  include_directories(${CMAKE_BINARY_DIR}/generated)
endfunction()

# lund_read_headers_once(folders...): every library and program in and under these takes the standard
# library's headers as they have been read. Not with clang,
# by which only the fuzz targets are built.
function(lund_read_headers_once)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    return()
  endif()
  foreach(folder ${ARGN})
    get_property(below DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
    if(below)
      lund_read_headers_once(${below})
    endif()
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
      get_target_property(type ${target} TYPE)
      if(type MATCHES "^(STATIC_LIBRARY|EXECUTABLE)$")
        target_precompile_headers(${target} REUSE_FROM standard_headers)
      endif()
    endforeach()
  endforeach()
endfunction()

# lund_library(NAME folder's direct dependencies...): the library of the calling folder. A source
# belongs to it by lying in the folder; one in linux/ or windows/ by being of this platform.
function(lund_library name)
  file(GLOB sources CONFIGURE_DEPENDS *.cpp ${LUND_PLATFORM}/*.cpp)
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC lund_options ${ARGN})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE lund_options ${ARGN})
  endif()
endfunction()

# lund_program(NAME description sources...): a program that users have; `programs` builds all of them.
# On Windows the component `programs` is what scripts/pack-windows packs.
add_custom_target(programs)
function(lund_program name description)
  add_executable(${name} ${ARGN})
  add_dependencies(programs ${name})
  if(WIN32)
    install(TARGETS ${name} RUNTIME DESTINATION . COMPONENT programs)
    lund_windows_program(${name} ${description})
  endif()
endfunction()

# lund_windows_program(NAME description): a program as users have it on Windows: it says what it is and
# how it is to be run (cmake/windows/), ends by an exception when it is aborted, and is loaded
# anywhere, by Windows 10 and newer, with nothing that can be both written and run:
# scripts/check-windows looks for all that can be seen of that.
function(lund_windows_program name description)
  set(LUND_PROGRAM ${name})
  set(LUND_PROGRAM_DESCRIPTION ${description})
  set(resources ${CMAKE_BINARY_DIR}/generated/resources)
  foreach(kind rc manifest)
    configure_file(${CMAKE_SOURCE_DIR}/cmake/windows/program.${kind}.in
      ${resources}/${name}.${kind} @ONLY)
  endforeach()
  target_sources(${name} PRIVATE ${resources}/${name}.rc ${CMAKE_SOURCE_DIR}/cmake/windows/program.cpp)
  set_source_files_properties(${resources}/${name}.rc PROPERTIES
    INCLUDE_DIRECTORIES ${resources} OBJECT_DEPENDS ${resources}/${name}.manifest)
  target_link_options(${name} PRIVATE
    LINKER:--dynamicbase,--high-entropy-va,--nxcompat
    LINKER:--major-os-version=10,--minor-os-version=0
    LINKER:--major-subsystem-version=10,--minor-subsystem-version=0)
endfunction()

# lund_test(NAME GLOB... LABEL label LIBS libraries...): a GoogleTest program of the sources that
# match, with each of its tests known to ctest by its own name, and by what it needs: "virtual" runs
# on the virtual clock, "realtime" has threads, sockets or files, "system" runs the programs. Suites
# called ...SoakTest take minutes: ctest doesn't know them, scripts/soak runs them. NEEDS names a
# fixture of ctest's that is set up before.
function(lund_test name)
  cmake_parse_arguments(arg "" "LABEL;NEEDS" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${arg_UNPARSED_ARGUMENTS})
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    LUND_SOURCE_DIR="${CMAKE_SOURCE_DIR}" LUND_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  target_precompile_headers(${name} REUSE_FROM test_headers)
  if(WIN32)
    return()  # scripts/test-windows runs the programs whole: each start of Wine takes its time
  endif()
  set(needs)
  if(arg_NEEDS)
    set(needs FIXTURES_REQUIRED ${arg_NEEDS})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 TEST_FILTER "-*SoakTest.*"
    PROPERTIES TIMEOUT 120 LABELS ${arg_LABEL} ${needs})
endfunction()
