# Manual pages and bash completion. Each page has one source, docs/man/NAME.SECTION.scd,
# rendered to roff by scdoc; each tool's completion is tools/completion/TOOL.
find_program(SCDOC scdoc REQUIRED)
file(GLOB kvard_man_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/*.scd)
set(kvard_man_pages)
foreach(src ${kvard_man_sources})
  get_filename_component(page ${src} NAME_WLE)          # tmctl.1
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  set(out ${CMAKE_BINARY_DIR}/man/${page})
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "${SCDOC} < '${src}' > '${out}'"
    DEPENDS ${src} VERBATIM)
  list(APPEND kvard_man_pages ${out})
  # The daemon's page goes with the daemon; the tools' pages with the tools.
  if(section STREQUAL "8")
    set(component daemon)
  else()
    set(component tools)
  endif()
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(manpages ALL DEPENDS ${kvard_man_pages})

file(GLOB kvard_completions CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/completion/*)
install(FILES ${kvard_completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT tools)
