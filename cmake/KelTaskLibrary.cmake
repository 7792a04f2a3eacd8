# keltask_library(<name> FOLDERS <folder>... [ON <library>] [LINKS <library>...])
#
# Compiles the folders' sources, and those of their detail/, once and makes, for a name such as Kel:
#   kel_objects    the object files, and what it takes to compile with the headers
#   Kel            the library libKel, whose users see only what is marked for export
#   kel_whitebox   the object files of this library and of all below it, for tests that see everything
# ON names the library of ours below this one, LINKS what else its users need. The global properties
# KELTASK_LIBRARIES and KELTASK_HEADER_FOLDERS gather the libraries and the folders of all headers.
function(keltask_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ON" "FOLDERS;LINKS")
    string(TOLOWER "${name}" lower)
    string(TOLOWER "${arg_ON}" below)

    list(TRANSFORM arg_FOLDERS APPEND "/*.cpp" OUTPUT_VARIABLE patterns)
    list(TRANSFORM arg_FOLDERS APPEND "/detail/*.cpp" OUTPUT_VARIABLE detail_patterns)
    file(GLOB sources CONFIGURE_DEPENDS ${patterns} ${detail_patterns})

    add_library(${lower}_objects OBJECT ${sources})
    set_target_properties(${lower}_objects PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    # Two pointers that stand side by side are written one by one: through a vector register they cost more.
    target_compile_options(${lower}_objects PRIVATE
        -fno-semantic-interposition -fno-plt -fno-tree-slp-vectorize)
    target_link_libraries(${lower}_objects
        PUBLIC ${arg_LINKS} ${below}$<$<BOOL:${below}>:_objects>
        PRIVATE keltask_warnings SpdlogHeaders::SpdlogHeaders)

    add_library(${name} $<TARGET_OBJECTS:${lower}_objects>)
    add_library(KelTask::${name} ALIAS ${name})
    set_target_properties(${name} PROPERTIES
        LINKER_LANGUAGE CXX
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        INSTALL_RPATH "$ORIGIN") # the libraries lie together; a packager sets CMAKE_SKIP_INSTALL_RPATH
    set_property(GLOBAL APPEND PROPERTY KELTASK_LIBRARIES ${name})
    set_property(GLOBAL APPEND PROPERTY KELTASK_HEADER_FOLDERS ${arg_FOLDERS})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_link_options(${name} PRIVATE LINKER:--no-undefined)
    endif()
    target_link_libraries(${name} PUBLIC ${arg_LINKS} ${arg_ON})

    add_library(${lower}_whitebox INTERFACE)
    target_sources(${lower}_whitebox INTERFACE $<TARGET_OBJECTS:${lower}_objects>)
    target_link_libraries(${lower}_whitebox INTERFACE
        ${lower}_objects ${below}$<$<BOOL:${below}>:_whitebox>)

    foreach(target IN ITEMS ${lower}_objects ${name})
        target_compile_features(${target} PUBLIC cxx_std_20)
        # Boost.Chrono is used from its headers alone; nothing of Boost is linked.
        target_compile_definitions(${target} PUBLIC
            BOOST_CHRONO_HEADER_ONLY
            $<$<BOOL:${KELTASK_THREAD_SAFE_PTR}>:MOX_THREAD_SAFE_PTR>)
        target_include_directories(${target} PUBLIC
            "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR};${PROJECT_SOURCE_DIR}/platform>"
            "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/keltask>")
    endforeach()
endfunction()
