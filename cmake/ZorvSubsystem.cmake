# zorv_subsystem(NAME [DEPENDS sub...] [LIBS target...])
#
# One core subsystem: src/NAME/*.cpp becomes the static library zorv_NAME.
# Its public headers live in src/NAME/include/NAME/ and are included as
# "NAME/header.h"; headers directly in src/NAME/ are private to it. A library
# sees only its own headers and those of what it DEPENDS on (and, through
# their public headers, what they depend on), so an include of an undeclared
# or higher subsystem fails to compile. A subsystem with no sources yet is an
# interface library that later issues fill.
set(ZORV_CORE_LIBS "" CACHE INTERNAL "")

function(zorv_subsystem name)
  cmake_parse_arguments(Z "" "" "DEPENDS;LIBS" ${ARGN})
  set(dir ${CMAKE_CURRENT_SOURCE_DIR}/${name})
  set(target zorv_${name})
  foreach(dep IN LISTS Z_DEPENDS)
    if(NOT TARGET zorv_${dep})
      message(FATAL_ERROR "subsystem ${name} depends on ${dep}, which is not declared before it")
    endif()
  endforeach()
  list(TRANSFORM Z_DEPENDS PREPEND zorv_ OUTPUT_VARIABLE deps)
  file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(srcs)
    add_library(${target} STATIC ${srcs})
    target_include_directories(${target} PUBLIC ${dir}/include PRIVATE ${dir})
    target_link_libraries(${target} PUBLIC ${deps} ${Z_LIBS})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${dir}/include)
    target_link_libraries(${target} INTERFACE ${deps} ${Z_LIBS})
  endif()
  set_property(TARGET ${target} PROPERTY ZORV_PRIVATE_DIR ${dir})
  set(ZORV_CORE_LIBS ${ZORV_CORE_LIBS} ${target} CACHE INTERNAL "")
endfunction()
