# header_check compiles every header of the libraries as a source of its own, so that none leans on what another file
# happened to include before it.
get_property(folders GLOBAL PROPERTY KELTASK_HEADER_FOLDERS)
list(TRANSFORM folders PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE patterns)
list(TRANSFORM patterns APPEND "/*.h" OUTPUT_VARIABLE public)
list(TRANSFORM patterns APPEND "/detail/*.h")
file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}" ${public} ${patterns})

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
