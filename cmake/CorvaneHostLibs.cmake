# Makes a folder of host libraries known to libCorvane's build and its users.

set(corvane_cmake_folder ${CMAKE_CURRENT_LIST_DIR})

# corvane_install_hostlibs(TARGET [PKGCONFIG MODULE...])
#
# Makes TARGET, a shared library with its headers in the file set HEADERS, the board's Corvane::HostLibs. Installs the
# library (component runtime), the headers, a CMake package CorvaneHostLibs and a pkg-config file corvane-host
# (component dev). libCorvane's package files refer to these two names. Each MODULE is a pkg-config module that TARGET's
# headers include; TARGET links it.
function(corvane_install_hostlibs target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "PKGCONFIG")
  set(modules ${arg_PKGCONFIG})
  set(find_modules "")
  foreach(module IN LISTS modules)
    string(MAKE_C_IDENTIFIER "CORVANE_HOST_${module}" prefix)
    pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${module})
    target_link_libraries(${target} PUBLIC PkgConfig::${prefix})
    string(APPEND find_modules "corvane_host_find(${prefix} ${module})\n")
  endforeach()

  set_property(GLOBAL PROPERTY CORVANE_HOSTLIBS_TARGET ${target})
  add_library(Corvane::HostLibs ALIAS ${target})
  target_compile_features(${target} INTERFACE cxx_std_17)  # how it is compiled itself is its own choice
  set_target_properties(${target} PROPERTIES EXPORT_NAME HostLibs VERIFY_INTERFACE_HEADER_SETS ON)
  install(TARGETS ${target} EXPORT CorvaneHostLibsTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane-host COMPONENT dev)

  set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/CorvaneHostLibs)
  configure_file(${corvane_cmake_folder}/CorvaneHostLibsConfig.cmake.in CorvaneHostLibsConfig.cmake @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/CorvaneHostLibsConfig.cmake
    DESTINATION ${package_folder} COMPONENT dev)
  install(EXPORT CorvaneHostLibsTargets NAMESPACE Corvane::
    DESTINATION ${package_folder} COMPONENT dev)

  list(JOIN modules ", " pc_requires)
  corvane_install_pkgconfig(corvane-host "Host libraries that libCorvane is built against"
    "$<TARGET_FILE_BASE_NAME:${target}>" "${pc_requires}")
endfunction()

# corvane_require_hostlibs(FOLDER): ends the configuration if FOLDER's CMakeLists.txt did not call the function above.
# An alias of its own would not do: it lacks the package files that libCorvane's own refer to.
function(corvane_require_hostlibs folder)
  get_property(target GLOBAL PROPERTY CORVANE_HOSTLIBS_TARGET)
  if(target)
    return()
  endif()
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  list(JOIN targets ", " targets)
  message(FATAL_ERROR
    "${folder}/CMakeLists.txt does not call corvane_install_hostlibs, so libCorvane has no host libraries. "
    "It defines: ${targets}. Add the line corvane_install_hostlibs(TARGET PKGCONFIG log4cplus) with the library as "
    "TARGET; docs/porting.md explains it.")
endfunction()

# Installs NAME.pc, which finds its folders relative to its own place, so that a staged tree works too.
function(corvane_install_pkgconfig name description library requires)
  set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH to_prefix "${CMAKE_INSTALL_PREFIX}/${folder}" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
  file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc CONTENT
"prefix=\${pcfiledir}/${to_prefix}
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}/${name}

Name: ${name}
Description: ${description}
Version: ${PROJECT_VERSION}
Requires: ${requires}
Cflags: -I\${includedir}
Libs: -L\${libdir} -l${library}
")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${folder} COMPONENT dev)
endfunction()
