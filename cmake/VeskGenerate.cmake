# vesk_generate(<target> <schema>...): generates each schema's module into the build tree
# and adds the generated sources to <target>. The header lands in generated/<folder>/, where
# <folder> is the schema's own folder, so that it is included as "<folder>/<Module>.h" like
# the hand-written ones beside it; it is installed with them when the target installs its
# headers (cmr_library).
function(vesk_generate target)
  get_target_property(destination ${target} CMR_HEADER_DESTINATION)
  foreach(schema ${ARGN})
    get_filename_component(module ${schema} NAME_WE)
    get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR}/${schema} DIRECTORY)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${folder})
    set(outdir ${PROJECT_BINARY_DIR}/generated/${rel})
    add_custom_command(
      OUTPUT ${outdir}/${module}.h ${outdir}/${module}.cpp
      COMMAND cmr_vgen ${CMAKE_CURRENT_SOURCE_DIR}/${schema} ${outdir}
      DEPENDS cmr_vgen ${CMAKE_CURRENT_SOURCE_DIR}/${schema}
      COMMENT "Generating ${rel}/${module} from ${schema}")
    target_sources(${target} PRIVATE ${outdir}/${module}.cpp ${outdir}/${module}.h)
    if(destination)
      install(FILES ${outdir}/${module}.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${rel})
    endif()
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>)
endfunction()
