# corvane_add_layer(NAME DEPS ...) builds src/NAME/*.cpp into the static library
# corvane_NAME. Public headers live in include/corvane/NAME/, private ones beside the sources.
set(CORVANE_LAYER_TARGETS "")
function(corvane_add_layer name)
  cmake_parse_arguments(LAYER "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${name}/*.cpp)
  set(target corvane_${name})
  if(NOT sources)
    # A layer whose first sources have not landed yet still links.
    set(placeholder ${CMAKE_CURRENT_BINARY_DIR}/corvane_${name}_placeholder.cpp)
    file(WRITE ${placeholder} "namespace corvane { void ${name}LayerPlaceholder() {} }\n")
    set(sources ${placeholder})
  endif()
  add_library(${target} STATIC ${sources})
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${target} PUBLIC ${LAYER_DEPS} PRIVATE $<BUILD_INTERFACE:corvane_options>)
  # The public headers are C++20; the requirement travels to hosts with the installed targets.
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_include_directories(${target} SYSTEM PRIVATE ${RapidJSON_INCLUDE_DIRS})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  set(CORVANE_LAYER_TARGETS ${CORVANE_LAYER_TARGETS} ${target} PARENT_SCOPE)
endfunction()
