# The Debian packages that `cpack -G DEB` makes of the installation's components; scripts/package
# does it all.
set(ORVO_MAINTAINER "The Orvo timing tools' maintainers <maintainers@example.invalid>" CACHE STRING
    "Maintainer that the Debian packages name, with an address")

# A release is what CHANGELOG.md gives a day. What is built between releases comes before the next one,
# and grows with the commit, or with the build where something is not committed: apt installs it over
# what was built earlier.
file(READ "${PROJECT_SOURCE_DIR}/CHANGELOG.md" changelog)
string(REPLACE "." "[.]" version_pattern "${PROJECT_VERSION}")
if(changelog MATCHES "## \\[Unreleased\\]")
  execute_process(COMMAND git -C "${PROJECT_SOURCE_DIR}" diff --quiet HEAD
                  RESULT_VARIABLE differs OUTPUT_QUIET ERROR_QUIET)
  if(differs EQUAL 0)
    execute_process(COMMAND "${CMAKE_COMMAND}" -E env TZ=UTC0 git -C "${PROJECT_SOURCE_DIR}"
                            log -1 --date=format-local:%Y%m%d.%H%M%S --format=%cd+%h
                    OUTPUT_VARIABLE built OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  else()
    string(TIMESTAMP built "%Y%m%d.%H%M%S" UTC)
  endif()
  set(package_version "${PROJECT_VERSION}~dev${built}")
  string(SUBSTRING "${built}" 0 8 CPACK_ORVO_DATE)
elseif(changelog MATCHES "## \\[${version_pattern}\\] - ([0-9]+-[0-9]+-[0-9]+)")
  set(package_version "${PROJECT_VERSION}")
  set(CPACK_ORVO_DATE "${CMAKE_MATCH_1}")
else()
  message(FATAL_ERROR "CHANGELOG.md has neither an unreleased entry nor a dated one for ${PROJECT_VERSION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvo-timing-tools)
set(CPACK_PACKAGE_VERSION "${package_version}")
set(CPACK_PACKAGE_CONTACT "${ORVO_MAINTAINER}")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Dependencies are what the programs link. The driver library belongs to no package: it is only
# shown where it lies, and no dependency comes of it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src/orvo/simulator")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvo-timing-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"verify and inspect streams of a time-tagging instrument
Tools for a four-channel time-tagging instrument that sends its timestamps
in a compact packed-delta stream.
.
ot_verify_overflow_frequency records the instrument's calibration source and
judges the rates of what the host gets back. ortime looks into recordings and
judges them again without the instrument. ot-simulated runs a program on a
simulated instrument.
.
The libraries that read stream files are included, with their headers and a
CMake package. The driver library of the instrument's maker is not.")

if(TARGET orvo_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-orvo-timing)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  math(EXPR next_minor "${Python3_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= 3.${Python3_VERSION_MINOR}), python3 (<< 3.${next_minor}), python3-numpy")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS python3-distributed)
  # Byte-compiled when installed, and no such file left when removed.
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
      "${PROJECT_SOURCE_DIR}/packaging/python/postinst" "${PROJECT_SOURCE_DIR}/packaging/python/prerm")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION
"recordings of a time-tagging instrument as NumPy arrays
orvo_timing reads the stream files that ot_verify_overflow_frequency records:
their timestamps as NumPy arrays, block by block or all at once, verdicts on
them, and what happened to the decoder's lock.
.
It needs neither the instrument nor its driver library.")
endif()

# What only a Debian package has: see there.
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/debian_files.cmake")
set(CPACK_ORVO_PACKAGING_DIR "${PROJECT_SOURCE_DIR}/packaging")
set(CPACK_ORVO_CHANGELOG "${PROJECT_SOURCE_DIR}/CHANGELOG.md")
include(CPack)
