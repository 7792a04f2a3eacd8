# How everything of ours is compiled. Flags that the test framework must share (sanitizers, -m32) are no
# matter of this file: they come in CMAKE_CXX_FLAGS, from the presets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Release, Debug, ..." FORCE)
endif()

add_library(keltask_warnings INTERFACE)
target_compile_options(keltask_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wformat=2 -Wimplicit-fallthrough -Wundef
    $<$<BOOL:${KELTASK_WERROR}>:-Werror>)
