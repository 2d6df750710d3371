# kx_generate(TARGET DESCRIPTION): builds TARGET with the header that kxgen makes of the description of a service.
# Sources include it by the file's name: of "thermostat.xml" it is "thermostat.h".
function(kx_generate target description)
  cmake_path(ABSOLUTE_PATH description)
  cmake_path(GET description STEM LAST_ONLY name)
  cmake_path(GET KX_GENERATOR PARENT_PATH generator_folder)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/kxgen/${target})
  file(MAKE_DIRECTORY ${folder})
  add_custom_command(OUTPUT ${folder}/${name}.h
                     COMMAND ${KX_GENERATOR} ${description} ${folder}/${name}.h
                     DEPENDS ${description} ${KX_GENERATOR} ${generator_folder}/header.h.j2 VERBATIM)
  target_sources(${target} PRIVATE ${folder}/${name}.h)
  target_include_directories(${target} PRIVATE ${folder})
endfunction()
