# Install rules, manual pages and the Debian package (`make package`).
# Included at the end of the top-level CMakeLists.txt, once every target exists.
#
# The helper goes to libexec (only its socket starts it), the tools to bin,
# the volume library and its header for C callers to lib and include. The
# units, the tmpfiles.d entry and the registry entry that lets root's qvalctl
# talk to the helper go where the service manager and the helper look for
# them. The development PKI ships only as an example: certificates and public
# keys, never a private key.

include(GNUInstallDirs)
# The documentation folder is named after the package, as Debian has it.
set(CMAKE_INSTALL_DOCDIR "${CMAKE_INSTALL_DATAROOTDIR}/doc/qvald-helper")

set(QVL_VERSION 0.1.0)
set(QVL_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
# Relative to the prefix; systemd reads both /usr/lib and /usr/local/lib.
set(QVL_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the systemd units go")
set(QVL_TMPFILES_DIR "lib/tmpfiles.d" CACHE STRING "Where the tmpfiles.d entry goes")
# The helper reads its entitlement registry from this fixed folder.
set(QVL_ENTITLEMENT_DIR "/etc/ostrel/entitlements" CACHE PATH "The helper's entitlement registry")

# Files that name installed paths are made at install time, from the prefix
# in force then (the package's /usr, or --prefix).
set(qvl_generated ${CMAKE_BINARY_DIR}/packaging)
install(CODE "
  set(QVL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(QVL_HELPER_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}/qvald_helper\")
  set(QVL_QVALCTL_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/qvalctl\")
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(QVL_VERSION \"${QVL_VERSION}\")
  configure_file(\"${QVL_PACKAGING_DIR}/systemd/qvald_helper.service.in\" \"${qvl_generated}/qvald_helper.service\" @ONLY)
  configure_file(\"${QVL_PACKAGING_DIR}/qvalctl-root.plist.in\" \"${qvl_generated}/qvalctl-root.plist\" @ONLY)
  configure_file(\"${QVL_PACKAGING_DIR}/plexa.pc.in\" \"${qvl_generated}/plexa.pc\" @ONLY)
")

# ---------------------------------------------------------------- programs and library
install(TARGETS qvald_helper RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
install(TARGETS qvalctl qvlplist qvlmanifest plexactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS plexa ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/storage/plexa.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${qvl_generated}/plexa.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# ---------------------------------------------------------------- service
install(FILES ${QVL_PACKAGING_DIR}/systemd/qvald_helper.socket ${qvl_generated}/qvald_helper.service
        DESTINATION ${QVL_SYSTEMD_UNIT_DIR})
install(FILES ${QVL_PACKAGING_DIR}/tmpfiles.conf DESTINATION ${QVL_TMPFILES_DIR} RENAME qvald_helper.conf)
install(FILES ${qvl_generated}/qvalctl-root.plist DESTINATION ${QVL_ENTITLEMENT_DIR})

# ---------------------------------------------------------------- examples
set(qvl_examples ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${CMAKE_SOURCE_DIR}/metadata/DomainTable.plist ${CMAKE_SOURCE_DIR}/tools/qvlplist/samples/sample-manifest.plist
        DESTINATION ${qvl_examples})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/pki/out/ DESTINATION ${qvl_examples}/pki
        FILES_MATCHING PATTERN "*.pem" PATTERN "*.der" PATTERN "*.key" EXCLUDE)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# ---------------------------------------------------------------- manual pages
# Written once in scdoc's markup (packaging/man/NAME.SECTION.scd) and turned
# into roff at build time, compressed as Debian installs them.
find_program(QVL_SCDOC scdoc REQUIRED)
file(GLOB qvl_man_sources CONFIGURE_DEPENDS ${QVL_PACKAGING_DIR}/man/*.scd)
set(qvl_man_pages)
foreach(source ${qvl_man_sources})
  get_filename_component(page ${source} NAME_WLE)  # qvalctl.1
  string(REGEX MATCH "[0-9]$" section ${page})
  set(roff ${CMAKE_BINARY_DIR}/man/${page})
  set(output ${roff}.gz)
  add_custom_command(OUTPUT ${output}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
                     COMMAND sh -c "\"$0\" < \"$1\" > \"$2\"" ${QVL_SCDOC} ${source} ${roff}
                     COMMAND gzip -9nkf ${roff}
                     DEPENDS ${source}
                     COMMENT "Manual page ${page}"
                     VERBATIM)
  list(APPEND qvl_man_pages ${output})
  install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(qvl_man_pages ALL DEPENDS ${qvl_man_pages})

# ---------------------------------------------------------------- Debian package
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvald-helper)
set(CPACK_PACKAGE_VERSION ${QVL_VERSION})
set(CPACK_PACKAGE_CONTACT "qvald_helper maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Root helper of the retail demonstration daemon, and its tools")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "qvald_helper carries out the steps of the retail demonstration daemon that\n"
    "need root, for a client that holds its entitlement; its socket starts it.\n"
    "With the tools qvalctl, qvlplist, qvlmanifest and plexactl, and the volume\n"
    "library for C programs.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS systemd)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The registry entry is the package's own grant to its own client, not a file
# for the administrator to edit: an administrator grants other clients with
# entries of their own beside it. So it is not a conffile, and removing the
# package takes it away with everything else the package installed.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${QVL_PACKAGING_DIR}/debian/postinst ${QVL_PACKAGING_DIR}/debian/prerm ${QVL_PACKAGING_DIR}/debian/postrm)
set(CPACK_STRIP_FILES ON)
include(CPack)
