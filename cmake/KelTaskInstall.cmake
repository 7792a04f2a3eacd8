# Installs:
#   component KelTask_Runtime       the libraries
#   component KelTask_Development   headers, a package file for find_package(KelTask), which gives the targets
#                                   KelTask::KelTask, KelTask::Kel and KelTask::Mox, and one for pkg-config
#   component KelTask_Tools         kelkv with its manual page (see kelkv/CMakeLists.txt) and what lies in tools/
# find_package(KelTask) serves the build tree as well, with KelTask_DIR=<build directory>.
include(CMakePackageConfigHelpers)

get_property(libraries GLOBAL PROPERTY KELTASK_LIBRARIES)
get_property(folders GLOBAL PROPERTY KELTASK_HEADER_FOLDERS)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/KelTask")

install(TARGETS ${libraries} EXPORT KelTaskTargets
    LIBRARY COMPONENT KelTask_Runtime NAMELINK_COMPONENT KelTask_Development
    ARCHIVE COMPONENT KelTask_Development)
foreach(folder IN LISTS folders) # a folder's detail/ is for our own sources
    install(DIRECTORY "${folder}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/keltask"
        COMPONENT KelTask_Development FILES_MATCHING PATTERN "*.h" PATTERN "detail" EXCLUDE)
endforeach()

write_basic_package_version_file("${PROJECT_BINARY_DIR}/KelTaskConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
configure_file(cmake/KelTaskConfig.cmake.in "${PROJECT_BINARY_DIR}/KelTaskConfig.cmake" @ONLY)
configure_file(cmake/FindBoostHeaders.cmake "${PROJECT_BINARY_DIR}/FindBoostHeaders.cmake" COPYONLY)
export(EXPORT KelTaskTargets NAMESPACE KelTask:: FILE "${PROJECT_BINARY_DIR}/KelTaskTargets.cmake")
install(EXPORT KelTaskTargets NAMESPACE KelTask:: DESTINATION "${package_dir}"
    COMPONENT KelTask_Development)
install(FILES "${PROJECT_BINARY_DIR}/KelTaskConfig.cmake" "${PROJECT_BINARY_DIR}/KelTaskConfigVersion.cmake"
              cmake/FindBoostHeaders.cmake
    DESTINATION "${package_dir}" COMPONENT KelTask_Development)

# The file's paths follow from where the file lies, so that the tree may be moved and packed.
file(RELATIVE_PATH to_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
file(RELATIVE_PATH to_libdir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH to_includedir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
set(definitions "$<TARGET_PROPERTY:KelTask,INTERFACE_COMPILE_DEFINITIONS>")
set(definitions "$<REMOVE_DUPLICATES:$<FILTER:${definitions},INCLUDE,.>>")
set(link_options "$<TARGET_PROPERTY:KelTask,INTERFACE_LINK_OPTIONS>")
configure_file(cmake/keltask.pc.in keltask.pc.in @ONLY)
file(GENERATE OUTPUT "${PROJECT_BINARY_DIR}/keltask.pc" INPUT "${PROJECT_BINARY_DIR}/keltask.pc.in")
install(FILES "${PROJECT_BINARY_DIR}/keltask.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT KelTask_Development)

file(GLOB tools CONFIGURE_DEPENDS tools/*)
install(FILES ${tools} DESTINATION "${CMAKE_INSTALL_DATADIR}/keltask" COMPONENT KelTask_Tools)
