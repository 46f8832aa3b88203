# Installs the library, the modules' public headers, the CMake package and the pkg-config file.
#
# Headers keep their module's folder: "qxUtils/Archive.h" is included by the same name here and by users. Private headers
# (src/) are not installed.
include(CMakePackageConfigHelpers)

set(QX_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/qxPersistStore")

install(TARGETS qxPersistStore EXPORT qxPersistStoreTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT qxPersistStoreTargets NAMESPACE qxPersistStore:: DESTINATION "${QX_CMAKE_DIR}")

configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/qxPersistStoreConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/package/qxPersistStoreConfig.cmake"
    INSTALL_DESTINATION "${QX_CMAKE_DIR}"
    NO_SET_AND_CHECK_MACRO)
# Before version 1 a minor version may change the interface.
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/package/qxPersistStoreConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/package/qxPersistStoreConfig.cmake"
    "${PROJECT_BINARY_DIR}/package/qxPersistStoreConfigVersion.cmake"
    DESTINATION "${QX_CMAKE_DIR}")

# The .pc file says where it lies relative to the prefix, so that an installed tree can be moved.
cmake_path(APPEND pc_dir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_LIBDIR}" "pkgconfig")
cmake_path(RELATIVE_PATH pc_dir BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" OUTPUT_VARIABLE pc_from_prefix)
string(REGEX REPLACE "[^/]+" ".." QX_PC_PREFIX_FROM_PCFILEDIR "${pc_from_prefix}")
configure_file(
    "${CMAKE_CURRENT_LIST_DIR}/qxPersistStore.pc.in"
    "${PROJECT_BINARY_DIR}/package/qxPersistStore.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/qxPersistStore.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
