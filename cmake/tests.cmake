# How tests are declared, and the environment that all of them run in.

# A locale whose decimal mark is a comma, whatever the machine has installed.
set(QM5_LOCALES ${CMAKE_BINARY_DIR}/locales)
add_custom_command(
  OUTPUT ${QM5_LOCALES}/de_DE.UTF-8
  COMMAND ${CMAKE_COMMAND} -E make_directory ${QM5_LOCALES}
  COMMAND localedef --no-archive -i de_DE -f UTF-8 ${QM5_LOCALES}/de_DE.UTF-8
  VERBATIM)
add_custom_target(qm5_locales ALL DEPENDS ${QM5_LOCALES}/de_DE.UTF-8)

# Qt and glib are built without ThreadSanitizer: the locks inside them can't be seen. A process that
# tries one case of many is forked off a program that Qt may have given threads.
set(QM5_TEST_ENVIRONMENT
  LOCPATH=${QM5_LOCALES}
  GTEST_DEATH_TEST_STYLE=threadsafe
  ASAN_OPTIONS=verify_asan_link_order=0:detect_stack_use_after_return=1
  LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks_of_others.txt
  UBSAN_OPTIONS=print_stacktrace=1
  "TSAN_OPTIONS=ignore_noninstrumented_modules=1:halt_on_error=1:die_after_fork=0")

set(QM5_TEST_LIMIT 50)
if(QM5_SANITIZER)
  set(QM5_TEST_LIMIT 120)
endif()

# qm5_test(NAME [SWEEP] SOURCES file... USES target... [ENVIRONMENT variable...])
# One process per test: what a test leaves behind dies with it. A test that hangs is ended after 50
# seconds, with a sanitizer after two minutes. One of a SWEEP has two minutes, and may have more from
# ./test: with a sanitizer, and where --long runs it in full. The sweeps, which take longest, start first.
function(qm5_test name)
  cmake_parse_arguments(arg "SWEEP" "" "SOURCES;USES;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${arg_USES})
  # By env, as gtest_discover_tests passes on no more than one variable.
  set(emulator env ${QM5_TEST_ENVIRONMENT} ${arg_ENVIRONMENT})
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${emulator}")
  set(limit PROPERTIES TIMEOUT ${QM5_TEST_LIMIT})
  if(arg_SWEEP)
    set(limit PROPERTIES COST 100)
  endif()
  gtest_discover_tests(${name} NO_PRETTY_VALUES TEST_PREFIX ${name}. ${limit})
endfunction()
