# The installed package: CMake config with imported targets QRV_IPM::*, and a
# pkg-config file.
include(CMakePackageConfigHelpers)

set(QRV_IPM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QRV_IPM)
install(EXPORT QRV_IPMTargets NAMESPACE QRV_IPM:: DESTINATION ${QRV_IPM_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QRV_IPMConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/QRV_IPMConfig.cmake INSTALL_DESTINATION ${QRV_IPM_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/QRV_IPMConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QRV_IPMConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QRV_IPMConfigVersion.cmake
        DESTINATION ${QRV_IPM_CMAKE_DIR})

configure_file(${CMAKE_CURRENT_LIST_DIR}/qrv_ipm.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qrv_ipm.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qrv_ipm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
