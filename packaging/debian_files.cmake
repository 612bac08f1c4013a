# Run by CPack on the staged installation: adds what Debian's policy asks of a package, and
# compresses what it wants compressed.
set(debian_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

function(add file destination)
  get_filename_component(folder "${destination}" DIRECTORY)
  file(MAKE_DIRECTORY "${folder}")
  file(COPY_FILE "${file}" "${destination}")
  file(CHMOD "${destination}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  set(run_output "${output}" PARENT_SCOPE)
endfunction()

# The packages' own history: this version, on the day that it is from.
run(date -u -R -d "${CPACK_ORVO_DATE}")
set(date "${run_output}")

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER "${component}" upper)
  set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  set(root "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr")
  set(doc_dir "${root}/share/doc/${package}")
  add("${CPACK_ORVO_PACKAGING_DIR}/copyright" "${doc_dir}/copyright")
  add("${CPACK_ORVO_CHANGELOG}" "${doc_dir}/changelog")
  file(WRITE "${doc_dir}/changelog.Debian"
"${package} (${debian_version}) unstable; urgency=medium

  * Version ${CPACK_PACKAGE_VERSION}; what changed is in changelog.gz.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  # The package is built from its own sources and not meant for Debian's archive: no request for it
  # exists there that it could close.
  file(WRITE "${root}/share/lintian/overrides/${package}"
       "${package}: initial-upload-closes-no-bugs\n")
  file(GLOB pages "${root}/share/man/man1/*.1")
  run(gzip -9 -n -f ${pages} "${doc_dir}/changelog" "${doc_dir}/changelog.Debian")
endforeach()
