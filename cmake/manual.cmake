# kx_install_manual(COMPONENT PAGE...): installs manual pages of this folder, compressed.
function(kx_install_manual component)
  foreach(page ${ARGN})
    cmake_path(GET page FILENAME name)
    string(REGEX MATCH "[0-9]$" section ${name})
    set(packed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
    add_custom_command(OUTPUT ${packed} DEPENDS ${page} VERBATIM
                       COMMAND sh -c "gzip -9nc \"$0\" > \"$1\"" ${CMAKE_CURRENT_SOURCE_DIR}/${page} ${packed})
    add_custom_target(manual_${name} ALL DEPENDS ${packed})
    install(FILES ${packed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endforeach()
endfunction()
