# Compares what the documents say with what the programs take: settings, options, environment
# variables, the simulated instrument's keys, the version. Each is documented, once in a document,
# and nothing is documented that is not there.
cmake_minimum_required(VERSION 3.23)

set(man_dir "${SOURCE_DIR}/docs/man")
set(tool_page ot_verify_overflow_frequency.1)

# All that group 1 of `pattern` matches in `text`, sorted, with repetitions.
function(collect result pattern text)
  set(found)
  string(REGEX MATCHALL "${pattern}" matches "${text}")
  foreach(match IN LISTS matches)
    string(REGEX REPLACE "${pattern}" "\\1" match "${match}")
    list(APPEND found "${match}")
  endforeach()
  list(SORT found)
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

function(read result file)
  file(READ "${SOURCE_DIR}/${file}" text)
  string(REGEX REPLACE "[][;]" " " text "${text}")  # they have a meaning in CMake's lists
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

function(expect_same what documented actual)
  if(NOT actual)
    message(SEND_ERROR "${what}: none found, the pattern does not fit the source")
  elseif(NOT "${documented}" STREQUAL "${actual}")
    message(SEND_ERROR "${what}\n  documented: ${documented}\n  there is:   ${actual}")
  endif()
endfunction()

# The part of `text` from the heading `from` to the one `to`.
function(between result from to text)
  string(FIND "${text}" "${from}" begin)
  if(begin EQUAL -1)
    message(SEND_ERROR "no heading '${from}'")
  endif()
  string(SUBSTRING "${text}" ${begin} -1 part)
  string(LENGTH "${from}" length)
  string(SUBSTRING "${part}" ${length} -1 part)
  string(FIND "${part}" "${to}" end)
  string(SUBSTRING "${part}" 0 ${end} part)
  set(${result} "${part}" PARENT_SCOPE)
endfunction()

# The tool's settings.
read(text src/orvo/verification/config.cpp)
collect(settings "\n    {\"([a-z_]+)\"," "${text}")
read(text docs/man/${tool_page})
between(text ".Sh SETTINGS" ".Sh " "${text}")
collect(documented ".It Cm ([a-z_]+)" "${text}")
expect_same("Settings in ${tool_page}" "${documented}" "${settings}")
read(text README.md)
between(text "\n## Settings" "\n## " "${text}")
collect(documented "\n. `([a-z_]+)` ." "${text}")
list(REMOVE_ITEM settings cal_freq_hz)  # named in the row of the key that it is another name of
expect_same("Settings in README.md" "${documented}" "${settings}")
if(NOT text MATCHES "also `cal_freq_hz`")
  message(SEND_ERROR "README.md does not mention cal_freq_hz")
endif()

# What the simulated instrument can be told.
read(text src/orvo/simulator/settings.cpp)
collect(keys "\n    {\"([a-z_]+)\"," "${text}")
read(text docs/simulator.md)
between(text "\n## Commands" "\n## " "${text}")
collect(documented "\n. `([a-z_]+)` ." "${text}")
expect_same("Keys of ORVO_SIM in docs/simulator.md" "${documented}" "${keys}")

# Environment variables: all that the sources name, in the page of a program that reads them.
file(GLOB_RECURSE sources RELATIVE "${SOURCE_DIR}" "${SOURCE_DIR}/src/*.cpp")
set(code)
foreach(source ${sources})
  read(text ${source})
  string(APPEND code "${text}")
endforeach()
collect(variables "\"(ORVO_[A-Z_]+)\"" "${code}")
list(REMOVE_DUPLICATES variables)
set(documented)
foreach(page ${tool_page} ot-simulated.1)
  read(text docs/man/${page})
  collect(found ".It Ev (ORVO_[A-Z_]+)" "${text}")
  list(APPEND documented ${found})
endforeach()
list(SORT documented)
expect_same("Environment variables" "${documented}" "${variables}")

# The options of ortime, command by command, and its version.
if(ORTIME)
  read(page docs/man/ortime.1)
  string(REPLACE "\n.Sh" "\n.Ss" page "${page}")
  foreach(command info tags verify report)
    execute_process(COMMAND "${ORTIME}" ${command} --help OUTPUT_VARIABLE help
                    COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "\n  -[a-z],--" "\n  --" help "${help}")
    collect(options "\n  --([a-z-]+)" "${help}")
    list(REMOVE_ITEM options help)
    between(text ".Ss ortime ${command}\n" "\n.Ss" "${page}")
    collect(documented ".It Fl -([a-z-]+)" "${text}")
    expect_same("Options of ortime ${command}" "${documented}" "${options}")
  endforeach()
  execute_process(COMMAND "${ORTIME}" --version OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  expect_same("ortime --version" "ortime ${VERSION}\n" "${text}")
endif()

# The newest entry of the changelog is this version's, or of changes that this version will bring.
read(text CHANGELOG.md)
string(REGEX MATCH "\n## +([0-9.]+) " unused "${text}")
set(released "${CMAKE_MATCH_1}")
if(NOT text MATCHES "\n## +Unreleased ")
  expect_same("CHANGELOG.md" "${released}" "${VERSION}")
elseif(NOT VERSION VERSION_GREATER released)
  message(SEND_ERROR "CHANGELOG.md has changes since ${released}: raise the VERSION of project()")
endif()
