# What every target of the project has in common: the language level, the include root and, where
# this project is the one being built, the warnings.
function(orvo_target name)
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(${name} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                                           $<$<BOOL:${ORVO_WARNINGS_AS_ERRORS}>:-Werror>)
  endif()
endfunction()
