orvo_test_program(damaged_files_tests ${CMAKE_CURRENT_LIST_DIR}/damaged_files.cpp)
target_include_directories(damaged_files_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/..)
target_link_libraries(damaged_files_tests PRIVATE orvo_simulator_core orvo_stream)
