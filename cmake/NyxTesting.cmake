# nyx_add_gtest(NAME SOURCES a.cpp... LIBS lib... [LABELS l...] [ENVIRONMENT K=V...] [TIMEOUT s])
#
# Builds one GoogleTest binary and registers it with CTest as one test. When
# cross-compiling, CTest runs it through CMAKE_CROSSCOMPILING_EMULATOR, and
# tests that start further project binaries find that emulator in
# NYX_TEST_EMULATOR.
string(REPLACE ";" " " NYX_TEST_EMULATOR "${CMAKE_CROSSCOMPILING_EMULATOR}")

# In a sanitizer build, every test and every program it starts (nyxd, hbus,
# the codec tool inherit the test's environment) stops at its first finding
# with exit status 66, a status no project program uses, so that a finding
# never passes for an expected "status 1" from hbus or an intended abort of
# nyxd. Reports stay on standard error: CTest shows a test binary's own, and
# ChildProcess (tests/support) fails the running test with the child's output
# when it holds one, so a report in a child is never lost even when the test
# has already killed the child.
#
# GLib is not built with ThreadSanitizer: its locks and atomics are invisible
# to it, so memory that GLib allocates on one thread and frees on another
# (a D-Bus message handed to its worker thread) looks like a race. The
# sanitizer therefore ignores the memory calls that GLib itself makes
# (ignore_noninstrumented_modules) and GLib's slice allocator is replaced by
# plain malloc; every access made by the project's own code is still checked.
set(NYX_SANITIZER_ENV "")
if(NYX_SANITIZE)
  set(halt "halt_on_error=1:exitcode=66:print_summary=1")
  list(APPEND NYX_SANITIZER_ENV
    "ASAN_OPTIONS=${halt}:detect_leaks=1:check_initialization_order=1:strict_init_order=1"
    "UBSAN_OPTIONS=${halt}:print_stacktrace=1"
    "TSAN_OPTIONS=${halt}:second_deadlock_stack=1:ignore_noninstrumented_modules=1"
    "G_SLICE=always-malloc")
endif()

# Time-out (default 300 s), labels and the environment every test gets: where
# the sources and the build are, the emulator for cross-built programs and the
# sanitizer options, then the test's own variables.
function(nyx_set_test_properties name timeout labels environment)
  if(NOT timeout)
    set(timeout 300)
  endif()
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${timeout}
    LABELS "${labels}"
    ENVIRONMENT "NYX_SOURCE_DIR=${PROJECT_SOURCE_DIR};NYX_BINARY_DIR=${PROJECT_BINARY_DIR};NYX_TEST_EMULATOR=${NYX_TEST_EMULATOR};${NYX_SANITIZER_ENV};${environment}")
endfunction()

# Every test runs under tests/support/no_leftovers, which fails the test when
# a process it started is still running after it ended (a test binary that
# died without its destructors, a tool that left a child behind).
set(NYX_NO_LEFTOVERS /usr/bin/python3 ${PROJECT_SOURCE_DIR}/tests/support/no_leftovers)

# One test file, one binary, one CTest entry: a test added to the file always
# runs. Tests that take long go into a file of their own with the label slow.
function(nyx_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} nyx_test_support GTest::gmock GTest::gtest_main)
  add_test(NAME ${name}
    COMMAND ${NYX_NO_LEFTOVERS} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
  nyx_set_test_properties(${name} "${ARG_TIMEOUT}" "${ARG_LABELS}" "${ARG_ENVIRONMENT}")
endfunction()

# nyx_add_python_test(NAME SCRIPT [INTERPRETER path] [LABELS l...] [ENVIRONMENT K=V...]
#                     [TIMEOUT s])
#
# Tools that use GLib's Gio need Debian's own interpreter, /usr/bin/python3,
# which is the one with python3-gi; pass it as INTERPRETER.
function(nyx_add_python_test name script)
  cmake_parse_arguments(ARG "" "TIMEOUT;INTERPRETER" "LABELS;ENVIRONMENT" ${ARGN})
  if(NOT ARG_INTERPRETER)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    set(ARG_INTERPRETER ${Python3_EXECUTABLE})
  endif()
  add_test(NAME ${name} COMMAND ${NYX_NO_LEFTOVERS} ${ARG_INTERPRETER} ${script})
  nyx_set_test_properties(${name} "${ARG_TIMEOUT}" "${ARG_LABELS}"
    "PYTHONDONTWRITEBYTECODE=1;${ARG_ENVIRONMENT}")
endfunction()
