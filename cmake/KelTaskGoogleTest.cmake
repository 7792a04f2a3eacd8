# googletest: GoogleTest and GoogleMock built from the system's sources, with the flags of this build, so that
# they fit sanitizers and 32 bits.
set(KELTASK_GOOGLETEST_SOURCE "/usr/src/googletest" CACHE PATH "Where GoogleTest's sources are")
if(NOT EXISTS "${KELTASK_GOOGLETEST_SOURCE}/googlemock/src/gmock-all.cc")
    message(FATAL_ERROR "No GoogleTest sources in ${KELTASK_GOOGLETEST_SOURCE} (KELTASK_GOOGLETEST_SOURCE)")
endif()

add_library(googletest STATIC
    "${KELTASK_GOOGLETEST_SOURCE}/googletest/src/gtest-all.cc"
    "${KELTASK_GOOGLETEST_SOURCE}/googlemock/src/gmock-all.cc"
    "${KELTASK_GOOGLETEST_SOURCE}/googlemock/src/gmock_main.cc")
foreach(part IN ITEMS googletest googlemock)
    target_include_directories(googletest SYSTEM PUBLIC "${KELTASK_GOOGLETEST_SOURCE}/${part}/include")
    target_include_directories(googletest PRIVATE "${KELTASK_GOOGLETEST_SOURCE}/${part}")
endforeach()
target_link_libraries(googletest PUBLIC Threads::Threads)
