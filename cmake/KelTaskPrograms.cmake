# keltask_programs(LINKS <library>...)
#
# Makes a program of each source in this folder, by its name.
function(keltask_programs)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "" "LINKS")
    file(GLOB sources CONFIGURE_DEPENDS *.cpp)
    foreach(source IN LISTS sources)
        cmake_path(GET source STEM name)
        add_executable(${name} ${source})
        target_link_libraries(${name} PRIVATE ${arg_LINKS} keltask_warnings)
    endforeach()
endfunction()
