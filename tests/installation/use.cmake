# Installs the build into a scratch prefix, moves it, and uses it as a stranger would.
cmake_minimum_required(VERSION 3.23)

foreach(name LD_LIBRARY_PATH ORVO_SIM ORVO_TIMING_PORT ORVO_TIMING_USB_SERIAL ORVO_PACKED_DEBUG)
  unset(ENV{${name}})
endforeach()
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/empty" "${WORK_DIR}/links")

# Runs a command in the empty folder, and fails unless it ends with `status`.
function(run status)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${WORK_DIR}/empty"
                  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result STREQUAL status)
    message(FATAL_ERROR "status ${result} instead of ${status}: ${ARGN}\n${out}${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

function(expect text part)
  string(FIND "${text}" "${part}" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "no '${part}' in:\n${text}")
  endif()
endfunction()

run(0 "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/staged")
set(prefix "${WORK_DIR}/moved hère")
file(RENAME "${WORK_DIR}/staged" "${prefix}")
set(tool "${prefix}/bin/ot_verify_overflow_frequency")
set(simulated "${prefix}/bin/ot-simulated")

# Nothing points back to where it was built or put first.
file(GLOB_RECURSE texts "${prefix}/*.cmake" "${prefix}/*.pc" "${prefix}/*.ini" "${simulated}")
foreach(file ${texts})
  file(READ "${file}" text)
  foreach(place "${SOURCE_DIR}/" "${BUILD_DIR}/" "${WORK_DIR}/staged")
    string(FIND "${text}" "${place}" found)
    if(NOT found EQUAL -1)
      message(FATAL_ERROR "${file} names ${place}")
    endif()
  endforeach()
endforeach()

# No program says where a driver library is, also where it was built. Nor do the tests.
file(GLOB programs "${prefix}/bin/o*" "${BUILD_DIR}/bin/o*" "${BUILD_DIR}/tests/*_tests")
list(FILTER programs EXCLUDE REGEX "ot-simulated$|[.]cmake$")
foreach(program ${programs})
  run(0 "${READELF}" -d "${program}")
  if(out MATCHES "RPATH|RUNPATH")
    message(FATAL_ERROR "${program} brings its own search path:\n${out}")
  endif()
endforeach()

# Without the driver library the loader says which one is missing.
foreach(program "${tool}" "${BUILD_DIR}/bin/ot_verify_overflow_frequency")
  run(127 "${program}" --help)
  expect("${err}" "liborvo_timing.so.0")
endforeach()

# The wrapper: usage, and statuses and signals that are the program's own.
run(64 "${simulated}")
expect("${err}" "Usage: ot-simulated")
run(64 "${simulated}" --unknown)
run(0 "${simulated}" --help)
run(7 "${simulated}" sh -c "exit 7")
run("Subprocess terminated" "${simulated}" sh -c "kill -TERM $$")
run(127 "${simulated}" ./no-such-program)

# One word in an empty folder: the installed settings, and results below that folder. Links to the
# programs do.
foreach(name ot-simulated ot_verify_overflow_frequency)
  file(CREATE_LINK "${prefix}/bin/${name}" "${WORK_DIR}/links/${name}" SYMBOLIC)
endforeach()
set(output_root "${WORK_DIR}/empty/logs/verification/overflow_frequency")
set(own_settings "${WORK_DIR}/empty/ot_verify_overflow_frequency.ini")
file(WRITE "${own_settings}" "frequencies_hz = 10000\ncapture_s = 1\n")
run(0 "${simulated}" ot_verify_overflow_frequency)
expect("${out}" "Config: ${own_settings}\n")
expect("${out}" "Output: ${output_root}/")
file(REMOVE "${own_settings}")
foreach(program "${WORK_DIR}/links/ot_verify_overflow_frequency" ot_verify_overflow_frequency)
  run(0 "${WORK_DIR}/links/ot-simulated" "${program}" --frequencies-hz=10000 --capture-s=1
      --channel-mask=5)
  expect("${out}"
         "Config: ${prefix}/share/orvo_timing/verification/ot_verify_overflow_frequency.ini\n")
  expect("${out}" "Output: ${output_root}/")
endforeach()

# The examples, as a project of one's own: it finds the package, compiles all its headers, judges the
# tool's recording of two channels as the tool has, and makes one itself.
run(0 "${CMAKE_COMMAND}" -S "${CMAKE_CURRENT_LIST_DIR}/consumer" -B "${WORK_DIR}/consumer"
    -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX}"
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}"
    "-DEXAMPLES_DIR=${SOURCE_DIR}/examples")
expect("${out}" "orvo_timing ${prefix}/")
run(0 "${CMAKE_COMMAND}" --build "${WORK_DIR}/consumer")
file(GLOB recording "${output_root}/*/overflow_frequency_01.ortime")
list(GET recording -1 recording)
file(GLOB judges "${WORK_DIR}/consumer/judge*")
foreach(judge ${judges})
  run(0 "${judge}" "${recording}" 3098)
endforeach()
file(READ "${output_root}/latest.csv" csv)
foreach(channel RANGE 3)
  if(NOT out MATCHES "channel ${channel}: ([0-9]+) events, ([0-9]+) to ([0-9]+) ps")
    message(FATAL_ERROR "no channel ${channel} in:\n${out}")
  endif()
  expect("${csv}" ",${channel},${CMAKE_MATCH_1},${CMAKE_MATCH_2},${CMAKE_MATCH_3},")
endforeach()
run(0 "${simulated}" "${WORK_DIR}/consumer/discover_and_record" "${WORK_DIR}/recorded.ortime")
expect("${out}" "simulated")
run(0 "${WORK_DIR}/consumer/judge" "${WORK_DIR}/recorded.ortime" 3098)
