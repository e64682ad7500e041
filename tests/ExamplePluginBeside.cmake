# qrv_example_plugin_beside(target): copies the example plug-in into plugins/
# of the directory the program `target` is built in, where the plug-in loader
# of a host finds it.
function(qrv_example_plugin_beside target)
  get_target_property(dir ${target} RUNTIME_OUTPUT_DIRECTORY)
  if(NOT dir)
    set(dir ${CMAKE_CURRENT_BINARY_DIR})
  endif()
  string(MAKE_C_IDENTIFIER "example_plugin_in_${dir}" copier)
  if(NOT TARGET ${copier})
    add_custom_command(OUTPUT ${dir}/plugins/libCIpmUserCustom.so
      COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:CIpmUserCustom> ${dir}/plugins/libCIpmUserCustom.so
      DEPENDS CIpmUserCustom)
    add_custom_target(${copier} DEPENDS ${dir}/plugins/libCIpmUserCustom.so)
  endif()
  add_dependencies(${target} ${copier})
endfunction()
