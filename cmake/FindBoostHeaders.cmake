# Boost's headers, found by themselves: its own package files belong to one architecture, and the headers
# serve the 32-bit build as well. Defines BoostHeaders::BoostHeaders.
find_path(BoostHeaders_INCLUDE_DIR boost/version.hpp
    HINTS ${Boost_INCLUDE_DIR} ${Boost_ROOT} ENV Boost_ROOT PATH_SUFFIXES include)
mark_as_advanced(BoostHeaders_INCLUDE_DIR)

if(BoostHeaders_INCLUDE_DIR)
    file(STRINGS "${BoostHeaders_INCLUDE_DIR}/boost/version.hpp" line REGEX "define BOOST_LIB_VERSION")
    string(REGEX REPLACE ".*\"([0-9]+)_([0-9]+).*" "\\1.\\2" BoostHeaders_VERSION "${line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(BoostHeaders
    REQUIRED_VARS BoostHeaders_INCLUDE_DIR VERSION_VAR BoostHeaders_VERSION)

if(BoostHeaders_FOUND AND NOT TARGET BoostHeaders::BoostHeaders)
    add_library(BoostHeaders::BoostHeaders INTERFACE IMPORTED)
    target_include_directories(BoostHeaders::BoostHeaders SYSTEM INTERFACE "${BoostHeaders_INCLUDE_DIR}")
endif()
