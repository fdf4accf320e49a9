# The robustness suites: test_faults (failed allocations, a full disk, bad
# inputs and outputs), test_threads (many threads at once, byte for byte
# against one thread) and test_hardening (size bombs, RAW staging, silence).
# The loop in tests/CMakeLists.txt already builds every tests/test_*.cpp;
# this only makes sure of them should that change.
#
# test_faults replaces the malloc family for its whole process, which cannot
# coexist with a sanitizer's allocator: when it sees -fsanitize=address or
# thread it leaves the hooks out and skips the allocation sweep.
# test_threads is meant to run under ThreadSanitizer: tests/run-tsan.sh
# builds it in a separate tree with -fsanitize=thread and runs it there.
foreach(name test_faults test_threads test_hardening)
  if(NOT TARGET ${name} AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
    add_executable(${name} ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
    target_compile_options(${name} PRIVATE ${QB_WARNINGS} ${QB_FP_FLAGS})
    target_link_libraries(${name} PRIVATE qbtest_support qbimage_static GTest::gtest_main)
    gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
                         DISCOVERY_TIMEOUT 60)
  endif()
endforeach()
