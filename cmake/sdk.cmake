# The component "dev" of the installation: headers, libraries and CMake packages for other applications.
#   AdaptivePlatform   the platform and the description of records
#   pos                the services of the positioning application
# `cmake --install … --component dev` installs it; without this argument it stays away.
include(CMakePackageConfigHelpers)

set(platform_includes include/adaptive-platform)
set(pos_includes include/pos)
set(packages ${CMAKE_INSTALL_LIBDIR}/cmake)

# pos_export(<package> <includes> <prefix of the archives> <targets…>): libraries of a package.
function(pos_export package includes prefix)
  foreach(target IN LISTS ARGN)
    string(REGEX REPLACE "^pos_(platform_)?" "" name ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
    get_target_property(type ${target} TYPE)
    if(NOT type STREQUAL "INTERFACE_LIBRARY")
      set_target_properties(${target} PROPERTIES OUTPUT_NAME ${prefix}_${name})
    endif()
  endforeach()
  install(TARGETS ${ARGN} EXPORT ${package}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev EXCLUDE_FROM_ALL
    INCLUDES DESTINATION ${includes})
  install(EXPORT ${package} NAMESPACE ${package}:: FILE ${package}Targets.cmake
    DESTINATION ${packages}/${package} COMPONENT dev EXCLUDE_FROM_ALL)
  configure_package_config_file(cmake/packages/${package}Config.cmake.in ${CMAKE_BINARY_DIR}/${package}Config.cmake
    INSTALL_DESTINATION ${packages}/${package})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/${package}ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/${package}Config.cmake ${CMAKE_BINARY_DIR}/${package}ConfigVersion.cmake
    DESTINATION ${packages}/${package} COMPONENT dev EXCLUDE_FROM_ALL)
endfunction()

# pos_install_headers(<includes> <folder> <headers…>)
function(pos_install_headers includes folder)
  list(TRANSFORM ARGN PREPEND ${folder}/ OUTPUT_VARIABLE headers)
  list(TRANSFORM headers APPEND .h)
  install(FILES ${headers} DESTINATION ${includes}/${folder} COMPONENT dev EXCLUDE_FROM_ALL)
endfunction()

set(clusters core log exec phm stm per time com)
set(rooms base wire net discovery node)
list(TRANSFORM clusters PREPEND pos_linux_)
list(TRANSFORM rooms PREPEND pos_someip_)
# In the build only programs name the platform; an installed library brings it.
target_link_libraries(pos_records PUBLIC $<INSTALL_INTERFACE:AdaptivePlatform::platform>)
pos_export(AdaptivePlatform ${platform_includes} adaptive_platform
  pos_platform_interface pos_platform pos_records ${clusters} ${rooms})
install(DIRECTORY platform/include/ DESTINATION ${platform_includes} COMPONENT dev EXCLUDE_FROM_ALL
  FILES_MATCHING PATTERN "*.h")
pos_install_headers(${platform_includes} binding
  codec interface_description payload record tlv_codec trace_json trace_records value_codec)
install(FILES cmake/arm64.cmake DESTINATION ${packages}/AdaptivePlatform COMPONENT dev EXCLUDE_FROM_ALL)

pos_export(pos ${pos_includes} pos
  pos_binding pos_consumed_interfaces pos_positioning_interface pos_diagnosis_interfaces)
pos_install_headers(${pos_includes} binding
  age_histogram application_state diagnosis_values position_ages position_type statistics timestamp)
pos_install_headers(${pos_includes} clients GNSS Time gnss_records time_records)
pos_install_headers(${pos_includes} posService Positioning positioning_records)
pos_install_headers(${pos_includes} diagnosisService DiagnosticMonitor data_identifiers monitor_table)
