# Language level, warnings, and the functions by which folders declare their targets.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

set(POS_SANITIZE "" CACHE STRING "Value of -fsanitize= for every target, or empty")
if(POS_SANITIZE)
  add_compile_options(-fsanitize=${POS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${POS_SANITIZE})
  if(POS_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Asio has a fence beside atomics that the sanitizer follows anyway.
    add_compile_options(-Wno-tsan)
  endif()
endif()

# What an attacker with a faulty length or pointer cannot do then: overwrite a return address unnoticed, write past an
# array of known size, write to the tables of the dynamic linker, know the program's addresses, return to an address of
# its choice. docs/trust.md says which of it depends on the machine.
option(POS_HARDEN "Compile and link the programs with the compiler's defences, as the Debian packages do" OFF)
if(POS_HARDEN)
  include(CheckPIESupported)
  check_pie_supported()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    add_compile_options(-fcf-protection=full)
  elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    add_compile_options(-mbranch-protection=standard)
  endif()
  add_link_options(LINKER:-z,relro,-z,now)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(pos_warnings INTERFACE)
target_compile_options(pos_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wnull-dereference -Wextra-semi -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports -Wnull-dereference and -Wmaybe-uninitialized inside boost::optional when it
  # inlines across instrumented code.
  target_compile_options(pos_warnings INTERFACE -Wno-null-dereference -Wno-maybe-uninitialized)
endif()

# pos_headers(<target> [links…]): headers of a folder for users that need no library of it.
function(pos_headers target)
  add_library(${target} INTERFACE)
  target_include_directories(${target} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${target} INTERFACE ${ARGN})
endfunction()

# pos_library(<target> SOURCES … [PUBLIC …] [PRIVATE …]): one folder, one static library. Headers are
# included from the root of the repository ("clients/gnssClientImpl.h").
function(pos_library target)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${target} STATIC ${ARG_SOURCES})
  set_property(GLOBAL APPEND PROPERTY pos_libraries ${target})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE} $<BUILD_INTERFACE:pos_warnings>)
endfunction()
