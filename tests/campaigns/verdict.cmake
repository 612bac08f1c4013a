# What the verdict rests on: losses and rate errors, days of data, the capture queue. Each program
# takes its budget as an argument; here it runs for seconds.
function(orvo_verdict_campaign name)
  add_executable(campaign_${name} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/${name}.cpp)
  orvo_target(campaign_${name})
  target_include_directories(campaign_${name} PRIVATE ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/..)
  target_link_libraries(campaign_${name} PRIVATE ${ARGN})
  add_test(NAME campaign_${name} COMMAND campaign_${name})
endfunction()

orvo_verdict_campaign(queue_storm orvo_device)
if(NOT ORVO_TIMING_LIBRARY)
  orvo_verdict_campaign(verdict_truth orvo_simulator_core orvo_evaluation)
  orvo_verdict_campaign(days_of_data orvo_simulator_core orvo_stream)
endif()
