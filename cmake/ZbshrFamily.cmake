# zbshr_family(NAME [DEPENDS fam...])
#   zbshr_<NAME>_obj : OBJECT library of src/<NAME>/*.cpp (and *.c)
#   zbshr_<NAME>     : STATIC archive of those objects, linking its dependencies
set(ZBSHR_FAMILIES "" CACHE INTERNAL "")

function(zbshr_family name)
  cmake_parse_arguments(F "" "" "DEPENDS" ${ARGN})
  file(GLOB _srcs CONFIGURE_DEPENDS
       "${PROJECT_SOURCE_DIR}/src/${name}/*.cpp"
       "${PROJECT_SOURCE_DIR}/src/${name}/*.c")
  # The platform layer keeps one backend per operating system in a subfolder.
  if(name STREQUAL "platform")
    if(WIN32)
      file(GLOB _backend CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/platform/win32/*.cpp")
    else()
      file(GLOB _backend CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/platform/posix/*.cpp")
    endif()
    list(APPEND _srcs ${_backend})
  endif()
  if(NOT _srcs)
    # A family with no sources yet still gets a target so that others can link it.
    set(_srcs "${PROJECT_SOURCE_DIR}/cmake/empty.cpp")
  endif()
  add_library(zbshr_${name}_obj OBJECT ${_srcs})
  target_include_directories(zbshr_${name}_obj PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  # On Windows the objects carry no dllexport (the DLL exports through its
  # module-definition file), so the static archives made of them are clean.
  if(WIN32)
    target_compile_definitions(zbshr_${name}_obj PRIVATE ZBSHR_STATIC)
  else()
    target_compile_definitions(zbshr_${name}_obj PRIVATE ZBSHR_BUILDING)
  endif()
  add_library(zbshr_${name} STATIC $<TARGET_OBJECTS:zbshr_${name}_obj>)
  target_include_directories(zbshr_${name} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  target_compile_definitions(zbshr_${name} PUBLIC ZBSHR_STATIC)
  foreach(dep IN LISTS F_DEPENDS)
    target_link_libraries(zbshr_${name} PUBLIC zbshr_${dep})
    target_link_libraries(zbshr_${name}_obj PUBLIC zbshr_${dep}_obj_usage)
  endforeach()
  add_library(zbshr_${name}_obj_usage INTERFACE)
  target_include_directories(zbshr_${name}_obj_usage INTERFACE
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  if(name STREQUAL "platform")
    # The fault-injection switch goes only into this family archive, which the
    # test programs link, never into the libraries that are installed.
    if(ZBSHR_FAULT_INJECTION)
      target_sources(zbshr_platform PRIVATE "${PROJECT_SOURCE_DIR}/src/platform/testing/fault_switch.cpp")
      target_compile_definitions(zbshr_platform PUBLIC ZBSHR_FAULT_INJECTION)
    endif()
    if(WIN32)
      target_link_libraries(zbshr_platform PUBLIC advapi32 user32 kernel32)
    else()
      find_package(Threads REQUIRED)
      target_link_libraries(zbshr_platform PUBLIC Threads::Threads ${CMAKE_DL_LIBS})
    endif()
  endif()
  set(ZBSHR_FAMILIES ${ZBSHR_FAMILIES} ${name} CACHE INTERNAL "")
endfunction()

# The shared library libzbshr and its static variant libzbshr_static are made of
# every family's objects.
function(zbshr_finish_library)
  set(_objs "")
  foreach(f IN LISTS ZBSHR_FAMILIES)
    list(APPEND _objs $<TARGET_OBJECTS:zbshr_${f}_obj>)
  endforeach()
  add_library(zbshr SHARED ${_objs})
  add_library(zbshr_static STATIC ${_objs})
  foreach(t zbshr zbshr_static)
    target_include_directories(${t} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    if(WIN32)
      target_link_libraries(${t} PRIVATE advapi32 user32 kernel32)
    else()
      find_package(Threads REQUIRED)
      target_link_libraries(${t} PRIVATE Threads::Threads ${CMAKE_DL_LIBS})
    endif()
  endforeach()
  target_compile_definitions(zbshr_static PUBLIC ZBSHR_STATIC)
  # The static archive is libzbshr.a (pkg-config's -lzbshr --static finds it);
  # only MSVC, whose import library is also zbshr.lib, keeps a distinct name.
  if(NOT MSVC)
    set_target_properties(zbshr_static PROPERTIES OUTPUT_NAME zbshr)
  endif()
  set_target_properties(zbshr PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 5)
  add_library(zbshr::zbshr ALIAS zbshr)
  add_library(zbshr::zbshr_static ALIAS zbshr_static)
endfunction()
