# What `cmake --install` puts where. Everything installed finds the rest by its own place, so that
# the prefix can be chosen when installing and moved later.
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/orvo_timing")
set(man_dir "${CMAKE_INSTALL_MANDIR}/man1")
# Not a folder that a loader or a linker searches: the simulated instrument answers only when asked.
set(simulated_dir "${CMAKE_INSTALL_LIBDIR}/orvo_timing/simulated")

# The programs.
install(TARGETS orvo_installed_tool DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES docs/man/ot_verify_overflow_frequency.1 DESTINATION "${man_dir}")
if(TARGET ortime)
  install(TARGETS ortime DESTINATION "${CMAKE_INSTALL_BINDIR}")
  install(FILES docs/man/ortime.1 DESTINATION "${man_dir}")
endif()

# The Python module, where Debian's Python looks for what packages bring.
if(TARGET orvo_python)
  set(python_dir "lib/python3/dist-packages/orvo_timing")
  install(TARGETS orvo_python LIBRARY DESTINATION "${python_dir}" COMPONENT python)
  install(DIRECTORY src/orvo/python/orvo_timing/ DESTINATION "${python_dir}" COMPONENT python
          FILES_MATCHING PATTERN "*.py" PATTERN "*.pyi" PATTERN py.typed)
endif()

# The settings, as they are in the source tree.
install(FILES src/orvo/verification/ot_verify_overflow_frequency.ini
        DESTINATION "${CMAKE_INSTALL_DATADIR}/orvo_timing/verification")

# The simulated instrument and the command that substitutes it for the maker's library.
install(TARGETS orvo_simulator LIBRARY DESTINATION "${simulated_dir}" NAMELINK_SKIP)
file(RELATIVE_PATH simulated_from_programs
     "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}/orvo_timing/simulated")
configure_file(packaging/ot-simulated.in installed/ot-simulated @ONLY)
install(PROGRAMS "${PROJECT_BINARY_DIR}/installed/ot-simulated"
        DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES docs/man/ot-simulated.1 DESTINATION "${man_dir}")
install(FILES docs/simulator.md docs/stream-format.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")

# The libraries, for find_package(orvo_timing).
install(TARGETS orvo_stream orvo_evaluation EXPORT orvo_timing
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS orvo_device EXPORT orvo_timing_device
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
foreach(export orvo_timing orvo_timing_device)
  install(EXPORT ${export} NAMESPACE orvo:: FILE ${export}_targets.cmake
          DESTINATION "${package_dir}")
endforeach()
set(simulated_driver "${simulated_dir}/liborvo_timing.so.0")
configure_package_config_file(cmake/orvo_timing-config.cmake.in
  "${PROJECT_BINARY_DIR}/installed/orvo_timing-config.cmake"
  INSTALL_DESTINATION "${package_dir}" PATH_VARS simulated_driver)
# Below 1.0 a new minor version may change what users compile against.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/installed/orvo_timing-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/installed/orvo_timing-config.cmake"
              "${PROJECT_BINARY_DIR}/installed/orvo_timing-config-version.cmake"
        DESTINATION "${package_dir}")

# The first two of them for pkg-config; a driver would have to be named.
file(RELATIVE_PATH prefix_from_pkg_config
     "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
configure_file(cmake/orvo_timing.pc.in installed/orvo_timing.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/installed/orvo_timing.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
