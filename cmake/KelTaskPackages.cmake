# Three Debian packages from the components that KelTaskInstall.cmake names: libkeltask1, libkeltask-dev and
# keltask-tools. Everything that belongs to packages alone is here and in packaging/.
if(NOT KELTASK_INSTALL OR NOT BUILD_SHARED_LIBS OR NOT KELTASK_KELKV)
    message(FATAL_ERROR "Packages need KELTASK_INSTALL, KELTASK_KELKV and BUILD_SHARED_LIBS")
endif()

set(library "libkeltask${PROJECT_VERSION_MAJOR}")
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
else()
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()

# The changelog's newest entry names the version and who packs; KELTASK_PACKAGE_CONTACT names somebody else.
set(changelog "${CMAKE_CURRENT_SOURCE_DIR}/packaging/changelog")
file(STRINGS "${changelog}" entries REGEX "^keltask \\(")
list(GET entries 0 newest)
if(NOT newest MATCHES "^keltask \\(${PROJECT_VERSION}\\)")
    message(FATAL_ERROR "packaging/changelog says nothing of ${PROJECT_VERSION}, but: ${newest}")
endif()
file(STRINGS "${changelog}" contacts REGEX "^ -- ")
list(GET contacts 0 contact)
string(REGEX REPLACE "^ -- (.*>)  .*" "\\1" contact "${contact}")
set(KELTASK_PACKAGE_CONTACT "${contact}" CACHE STRING "Name <address> of who packs")
execute_process(COMMAND gzip -9nc "${changelog}" OUTPUT_FILE "${PROJECT_BINARY_DIR}/changelog.gz"
    COMMAND_ERROR_IS_FATAL ANY)

function(keltask_package component name)
    install(FILES packaging/copyright "${PROJECT_BINARY_DIR}/changelog.gz"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${name}" COMPONENT ${component})
endfunction()
keltask_package(KelTask_Runtime ${library})
keltask_package(KelTask_Development libkeltask-dev)
keltask_package(KelTask_Tools keltask-tools)
install(FILES packaging/${library}.lintian-overrides DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides"
    RENAME ${library} COMPONENT KelTask_Runtime)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME keltask)
set(CPACK_PACKAGE_CONTACT "${KELTASK_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE keltask)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL KelTask_Runtime KelTask_Development KelTask_Tools)
set(summary "cooperative priority task scheduler")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${summary}")
set(about "libKelTask decides what the one thread of an event-driven process does next, by
five priorities and a time quantum for each task, and measures every run.")

set(CPACK_DEBIAN_KELTASK_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_KELTASK_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KELTASK_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_SOURCE_DIR}/packaging/triggers")
set(CPACK_COMPONENT_KELTASK_RUNTIME_DESCRIPTION "${summary}, libraries\n${about}\n.\nThis package has the libraries.")

set(CPACK_DEBIAN_KELTASK_DEVELOPMENT_PACKAGE_NAME libkeltask-dev)
set(CPACK_DEBIAN_KELTASK_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_KELTASK_DEVELOPMENT_PACKAGE_DEPENDS
    "${library} (= ${PROJECT_VERSION}), libboost1.81-dev")
set(CPACK_COMPONENT_KELTASK_DEVELOPMENT_DESCRIPTION
    "${summary}, headers\n${about}\n.\nThis package has the headers and what CMake and pkg-config read.")

set(CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_NAME keltask-tools)
set(CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_KELTASK_TOOLS_DESCRIPTION
    "${summary}, programs\n${about}\n.\nThis package has kelkv, a key-value daemon that is written with it.")

# What the binaries need of the system. dpkg-shlibdeps reads it from the symbols, but knows the packages of this
# machine's architecture alone; for the other one it is what this machine has in its place to link with.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CPACK_DEBIAN_KELTASK_RUNTIME_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
else()
    set(system)
    foreach(pair IN ITEMS libc6:libc6-i386 libgcc-s1:lib32gcc-s1 libstdc++6:lib32stdc++6)
        string(REGEX MATCH "(.*):(.*)" pair "${pair}")
        set(needed ${CMAKE_MATCH_1})
        execute_process(COMMAND dpkg-query -W -f "\${Version}" ${CMAKE_MATCH_2}
            OUTPUT_VARIABLE installed COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX REPLACE "-[^-]*$" "" upstream "${installed}")
        list(APPEND system "${needed} (>= ${upstream})")
    endforeach()
    list(JOIN system ", " system)
    set(CPACK_DEBIAN_KELTASK_RUNTIME_PACKAGE_DEPENDS "${system}")
    set(CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_DEPENDS "${system}")
endif()
string(APPEND CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_DEPENDS "," "${library} (= ${PROJECT_VERSION})")
string(REGEX REPLACE "^," "" CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_DEPENDS "${CPACK_DEBIAN_KELTASK_TOOLS_PACKAGE_DEPENDS}")

include(CPack)
