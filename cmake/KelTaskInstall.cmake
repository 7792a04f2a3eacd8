# Installs the libraries, their headers and a package file for find_package(KelTask), which gives the targets
# KelTask::KelTask, KelTask::Kel and KelTask::Mox.
include(CMakePackageConfigHelpers)

install(TARGETS Mox Kel KelTask EXPORT KelTaskTargets)
foreach(folder IN ITEMS platform/mox platform/kel task scheduler group registry)
    install(DIRECTORY "${folder}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/keltask" OPTIONAL
            FILES_MATCHING PATTERN "*.h")
endforeach()

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/KelTask")
install(EXPORT KelTaskTargets NAMESPACE KelTask:: DESTINATION "${package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KelTaskConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES cmake/KelTaskConfig.cmake cmake/FindBoostHeaders.cmake
              "${PROJECT_BINARY_DIR}/KelTaskConfigVersion.cmake"
        DESTINATION "${package_dir}")
