include(CMakeFindDependencyMacro)

list(PREPEND CMAKE_MODULE_PATH "${CMAKE_CURRENT_LIST_DIR}")
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_dependency(Threads)
find_dependency(BoostHeaders 1.81)
list(POP_FRONT CMAKE_MODULE_PATH)

include("${CMAKE_CURRENT_LIST_DIR}/KelTaskTargets.cmake")
