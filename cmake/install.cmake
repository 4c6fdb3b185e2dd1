# What is installed, by component: `module` (the card's module as a package for a chassis), `headend` and `tools` (the
# virtual headend and its clients, with man pages if help2man is there). `cpack -G DEB` makes a Debian package of each.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/qamcard)
target_include_directories(qamcard INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(qamcard_conformance PROPERTIES EXPORT_NAME conformance)
install(TARGETS qamcard qamcard_conformance EXPORT qamcard ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT module)
install(DIRECTORY qamcard DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT module FILES_MATCHING PATTERN *.h)
install(EXPORT qamcard NAMESPACE qamcard:: FILE qamcardTargets.cmake DESTINATION ${config_folder} COMPONENT module)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qamcardConfigVersion.cmake COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH qamcard_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)  # the files may be moved
configure_file(cmake/qamcard.pc.in qamcard.pc @ONLY)
install(FILES cmake/qamcardConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qamcardConfigVersion.cmake
        DESTINATION ${config_folder} COMPONENT module)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qamcard.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT module)
install(FILES docs/porting.md LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qamcard COMPONENT module)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qamcard COMPONENT module)

set(components module)
if(QAM_HEADEND)
  list(APPEND components headend tools)
  install(TARGETS headend RUNTIME COMPONENT headend)
  install(FILES packaging/headend.service DESTINATION lib/systemd/system COMPONENT headend)
  install(FILES README.md docs/headend.md docs/report.md docs/snmp.md docs/tracing.md LICENSE
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/headend COMPONENT headend)
  install(TARGETS qamctl qamweb tscheck RUNTIME COMPONENT tools)
  install(PROGRAMS $<TARGET_FILE_DIR:qamctl>/qamcal DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

  find_program(QAM_HELP2MAN help2man DOC "Makes man pages; without it there are none")
  if(QAM_HELP2MAN)
    foreach(pair "headend;headend" "qamctl;tools" "qamweb;tools" "tscheck;tools")
      list(GET pair 0 program)
      list(GET pair 1 component)
      set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1)
      add_custom_command(
          OUTPUT ${page}
          COMMAND ${QAM_HELP2MAN} --no-info --output=${page} $<TARGET_FILE:${program}>
          DEPENDS ${program}
          VERBATIM)
      list(APPEND man_pages ${page})
      install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
    endforeach()
    add_custom_target(man_pages ALL DEPENDS ${man_pages})
  endif()
endif()

set(CPACK_PACKAGE_NAME qamcard)
set(CPACK_PACKAGE_CONTACT "The qamcard maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Driver module of a QAM modulator card, and a virtual headend that runs it")
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME libqamcard-dev)
set(CPACK_DEBIAN_HEADEND_PACKAGE_NAME headend)
set(CPACK_DEBIAN_HEADEND_PACKAGE_RECOMMENDS headend-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME headend-tools)
include(CPack)
