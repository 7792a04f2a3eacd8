# The JSON library of nlohmann-json3-dev, headers alone. Defines NlohmannJson::NlohmannJson.
find_path(NlohmannJson_DIR_OF_HEADERS nlohmann/json.hpp)
mark_as_advanced(NlohmannJson_DIR_OF_HEADERS)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(NlohmannJson REQUIRED_VARS NlohmannJson_DIR_OF_HEADERS)

if(NlohmannJson_FOUND AND NOT TARGET NlohmannJson::NlohmannJson)
    add_library(NlohmannJson::NlohmannJson INTERFACE IMPORTED)
    target_include_directories(NlohmannJson::NlohmannJson SYSTEM INTERFACE "${NlohmannJson_DIR_OF_HEADERS}")
endif()
