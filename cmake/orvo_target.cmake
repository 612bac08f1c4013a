# What every target of the project has in common: the language level, the include root and, where
# this project is the one being built, the warnings.
function(orvo_target name)
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  # A program that brings a driver of its own, or calls none, loads none.
  target_link_options(${name} PRIVATE LINKER:--as-needed)
  if(PROJECT_IS_TOP_LEVEL)
    # Hardened as users run it; bounds-checked library containers wherever we test for faults.
    target_compile_options(${name} PRIVATE -fstack-protector-strong
                                           $<$<CONFIG:Release>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_compile_definitions(${name} PRIVATE $<$<NOT:$<CONFIG:Release>>:_GLIBCXX_ASSERTIONS>)
    target_link_options(${name} PRIVATE LINKER:-z,relro,-z,now)
    target_compile_options(${name} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                                           $<$<BOOL:${ORVO_WARNINGS_AS_ERRORS}>:-Werror>)
  endif()
endfunction()
