# vesk_generate(<target> <schema>...): generates each schema's module into the build tree
# and adds the generated sources to <target>.
function(vesk_generate target)
  foreach(schema ${ARGN})
    get_filename_component(module ${schema} NAME_WE)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    set(outdir ${PROJECT_BINARY_DIR}/generated/${rel})
    add_custom_command(
      OUTPUT ${outdir}/${module}.h ${outdir}/${module}.cpp
      COMMAND vgen ${CMAKE_CURRENT_SOURCE_DIR}/${schema} ${outdir}
      DEPENDS vgen ${CMAKE_CURRENT_SOURCE_DIR}/${schema}
      COMMENT "Generating ${rel}/${module} from ${schema}")
    target_sources(${target} PRIVATE ${outdir}/${module}.cpp ${outdir}/${module}.h)
  endforeach()
  target_include_directories(${target} PUBLIC ${PROJECT_BINARY_DIR}/generated)
endfunction()
