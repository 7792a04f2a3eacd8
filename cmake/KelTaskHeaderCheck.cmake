# header_check compiles every public header as a source of its own, so that none leans on what another file
# happened to include before it.
file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}"
    "${PROJECT_SOURCE_DIR}/platform/mox/*.h" "${PROJECT_SOURCE_DIR}/platform/kel/*.h"
    "${PROJECT_SOURCE_DIR}/task/*.h" "${PROJECT_SOURCE_DIR}/scheduler/*.h"
    "${PROJECT_SOURCE_DIR}/group/*.h" "${PROJECT_SOURCE_DIR}/registry/*.h")

set(sources)
foreach(header IN LISTS headers)
    string(REGEX REPLACE "^platform/" "" include "${header}")
    set(source "${CMAKE_CURRENT_BINARY_DIR}/header_check/${include}.cpp")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include <${include}>\n" @ONLY)
    list(APPEND sources "${source}")
endforeach()

add_library(header_check OBJECT ${sources})
target_link_libraries(header_check PRIVATE Mox keltask_warnings)
target_compile_options(header_check PRIVATE -O0 -g0)
