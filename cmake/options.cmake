# Compiler options that every target shares, and one helper to declare a
# folder's library with the folders it may include.
# Warnings are errors in the presets alone (CMAKE_COMPILE_WARNING_AS_ERROR): a compiler that the
# project has not met yet must not stop somebody who only builds it.

set(QM5_SANITIZER "" CACHE STRING "Sanitizers to build with: empty, address, or thread")
option(QM5_FUZZ "Build the fuzzers as well, which takes clang" OFF)

add_library(qm5_options INTERFACE)
target_include_directories(qm5_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(qm5_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  -fstack-protector-strong)
target_link_options(qm5_options INTERFACE
  $<$<PLATFORM_ID:Linux>:LINKER:-z,relro,-z,now,-z,noexecstack,--as-needed>)

if(QM5_SANITIZER STREQUAL "address")
  set(sanitize -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(QM5_SANITIZER STREQUAL "thread")
  set(sanitize -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(QM5_SANITIZER)
  target_compile_options(qm5_options INTERFACE ${sanitize})
  target_link_options(qm5_options INTERFACE ${sanitize})
else()
  target_compile_definitions(qm5_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

if(QM5_FUZZ)
  target_compile_options(qm5_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# qm5_library(NAME SOURCES file... [USES target...] [USES_INSIDE target...])
# USES are the libraries whose headers its own headers include, USES_INSIDE the others.
function(qm5_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;USES;USES_INSIDE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC qm5_options ${arg_USES} PRIVATE ${arg_USES_INSIDE})
endfunction()
