# cmr_library(<name> [INTERNAL] [<source>...]): the static library cmr_<name>, used in-tree
# and by consumers as ControllerMountsRegistry::<name>. Its headers are included by their
# path from the source root ("registry/MountsRegistrySm.h"): from the source and generated
# trees while building, from <prefix>/include once installed. Unless INTERNAL, the library
# joins the exported package and its folder's headers are installed, with the headers
# vesk_generate adds to it afterwards.
function(cmr_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "INTERNAL" "" "")
  set(target cmr_${name})
  add_library(${target} STATIC ${arg_UNPARSED_ARGUMENTS})
  add_library(ControllerMountsRegistry::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(NOT arg_INTERNAL AND CMR_INSTALL)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    set(destination ${CMAKE_INSTALL_INCLUDEDIR}/${rel})
    set_target_properties(${target} PROPERTIES CMR_HEADER_DESTINATION ${destination})
    install(TARGETS ${target} EXPORT ControllerMountsRegistryTargets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/ DESTINATION ${destination}
      FILES_MATCHING PATTERN "*.h")
  endif()
endfunction()
