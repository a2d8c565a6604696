# One folder is one layer. A layer's include path reaches its own folder and the layers named in DEPENDS, so that an
# include against the direction of the dependencies does not compile.
#
# Each layer's SOURCES are built twice: for the library, and with KAVO_TESTING defined, which compiles the test hooks in,
# for the white-box tests (library kavo_testing). A layer of templates has only INSTANTIATIONS, to be checked by
# themselves: whoever includes it compiles what it uses.
add_library(kavo_testing STATIC)
set_target_properties(kavo_testing PROPERTIES LINKER_LANGUAGE CXX)
add_custom_target(kavo_instantiations)

function(kavo_add_layer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;INSTANTIATIONS;DEPENDS" ${ARGN})
  set(root ${PROJECT_BINARY_DIR}/layers/${name})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${name} ${root}/${name} SYMBOLIC)
  add_library(kavo_${name}_include INTERFACE)
  target_include_directories(kavo_${name}_include INTERFACE ${root})
  foreach(lower IN LISTS ARG_DEPENDS)
    target_link_libraries(kavo_${name}_include INTERFACE kavo_${lower}_include)
  endforeach()
  target_link_libraries(kavo_testing PUBLIC kavo_${name}_include)
  if(ARG_INSTANTIATIONS)
    add_library(kavo_${name}_instantiations OBJECT EXCLUDE_FROM_ALL ${ARG_INSTANTIATIONS})
    target_link_libraries(kavo_${name}_instantiations PRIVATE kavo_${name}_include kavo_flags)
    add_dependencies(kavo_instantiations kavo_${name}_instantiations)
    return()
  endif()
  foreach(flavour IN ITEMS base testing)
    add_library(kavo_${name}_${flavour} OBJECT ${ARG_SOURCES})
    target_link_libraries(kavo_${name}_${flavour} PUBLIC kavo_${name}_include PRIVATE kavo_flags)
  endforeach()
  target_compile_definitions(kavo_${name}_testing PUBLIC KAVO_TESTING)
  target_sources(kavo_testing PRIVATE $<TARGET_OBJECTS:kavo_${name}_testing>)
endfunction()

target_compile_definitions(kavo_testing PUBLIC KAVO_TESTING)
target_link_libraries(kavo_testing PUBLIC kavo_flags)

add_library(kavo_public_include INTERFACE)
target_include_directories(kavo_public_include INTERFACE ${PROJECT_SOURCE_DIR}/include)
