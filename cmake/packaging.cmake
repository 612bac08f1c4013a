# The Debian package that `cpack -G DEB` makes of the installation; scripts/package does it all.
set(ORVO_MAINTAINER "The Orvo timing tools' maintainers <maintainers@example.invalid>" CACHE STRING
    "Maintainer that the Debian package names, with an address")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvo-timing-tools)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${ORVO_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "verify and inspect streams of a time-tagging instrument")
set(CPACK_PACKAGE_DESCRIPTION
"Tools for a four-channel time-tagging instrument that sends its timestamps
in a compact packed-delta stream.
.
ot_verify_overflow_frequency records the instrument's calibration source and
answers whether the host gets back every timestamp. ortime looks into
recordings and judges them again without the instrument. ot-simulated runs a
program on a simulated instrument.
.
The libraries that read stream files are included, with their headers and a
CMake package. The driver library of the instrument's maker is not.")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Dependencies are what the programs link. The driver library belongs to no package: it is only
# shown where it lies, and no dependency comes of it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src/orvo/simulator")

# What only a Debian package has: see there.
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/debian_files.cmake")
set(CPACK_ORVO_PACKAGING_DIR "${PROJECT_SOURCE_DIR}/packaging")
set(CPACK_ORVO_CHANGELOG "${PROJECT_SOURCE_DIR}/CHANGELOG.md")
include(CPack)
