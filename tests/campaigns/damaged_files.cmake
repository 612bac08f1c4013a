# Counts memory with an allocator of its own, which the thread sanitizer has too; it has no threads.
if(CMAKE_CXX_FLAGS MATCHES "fsanitize=thread")
  return()
endif()
orvo_test_program(damaged_files_tests ${CMAKE_CURRENT_LIST_DIR}/damaged_files.cpp)
target_include_directories(damaged_files_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/..)
target_link_libraries(damaged_files_tests PRIVATE orvo_simulator_core orvo_stream)
