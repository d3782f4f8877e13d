# What every target of the project shares: language level, warnings, sanitizers, output folders, and one function each
# for a library, a loadable node library and a test program.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
# Log lines name their source from its room on: "NodeBase/ZGraph".
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fdebug-prefix-map=${CMAKE_SOURCE_DIR}/=
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/framework/=
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/services/=)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # g++ 12 reports string concatenation in its own headers (its bug 105651).
    add_compile_options(-Wno-restrict)
    # A library with symbols that are unique in the process is never unloaded, and its classes stay creatable.
    add_compile_options(-fno-gnu-unique)
endif()

set(own_templates -Wl,--version-script=${CMAKE_SOURCE_DIR}/cmake/own-templates.map)

# What distributions ask of a program that reads what strangers bring. The same for every release build, so that the packages
# are built of the objects that were tested.
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT ARBOR_SANITIZE)
    add_compile_options(-fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    # The headers then mark results that must be used; that one does not count is said by a cast, which g++ does not hear.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-unused-result>)
    # Each of the others' templates is otherwise looked up by its name in every library, at each start.
    add_link_options(-Wl,-z,relro -Wl,-z,now ${own_templates})
endif()

if(ARBOR_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -O1 -g1)
    add_link_options(-fsanitize=address,undefined)
    # The instrumented standard headers look uninitialised to g++ 12 (its bug 105562).
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
elseif(ARBOR_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -O1 -g1)
    # Other libraries would otherwise find the instrumented code of the standard templates that both use, and be half checked.
    add_link_options(-fsanitize=thread ${own_templates})
    # The compiler warns that fences are not instrumented; none of ours is.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
elseif(ARBOR_SANITIZE STREQUAL "fuzzer")
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -O1 -g1)
    add_link_options(-fsanitize=address,undefined)
elseif(ARBOR_SANITIZE)
    message(FATAL_ERROR "ARBOR_SANITIZE is '${ARBOR_SANITIZE}'; it may be empty, address, thread or fuzzer")
endif()

# arbor_library(NAME SOURCES... ): a shared library, found by its siblings beside it, built and installed alike: what CMake
# would write into the library otherwise has an empty folder in it, which is the one that somebody stands in.
function(arbor_library name)
    add_library(${name} SHARED ${ARGN})
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

# arbor_framework_library(NAME SOURCES...): one that nodes of others are built on, with its headers, whose names stay
# what they are here: "NodeBase/ZNode.h".
function(arbor_framework_library name)
    arbor_library(${name} ${ARGN})
    install(TARGETS ${name} EXPORT ArborInstallTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/arbor)
    install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/arbor-install
            FILES_MATCHING PATTERN "*.h")
endfunction()

# What an instrument needs: the host, the client, every node library.
add_custom_target(arbor_programs)

# arbor_node_library(NAME SOURCES...): a library that a graph loads at run time.
function(arbor_node_library name)
    arbor_library(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE NodeBase)
    add_dependencies(arbor_programs ${name})
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/arbor)
endfunction()

# arbor_test(NAME SOURCES... [LIBRARIES ...]): a test program whose cases ctest runs one by one.
include(GoogleTest)
function(arbor_test name)
    cmake_parse_arguments(ARG "" "" "LIBRARIES" ${ARGN})
    find_package(GTest REQUIRED)
    add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main Threads::Threads)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300)
endfunction()
