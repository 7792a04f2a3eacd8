# spdlog and fmt as headers alone, so that no library of theirs is linked and the 32-bit build is served as
# well. Defines SpdlogHeaders::SpdlogHeaders.
find_path(SpdlogHeaders_SPDLOG_DIR spdlog/spdlog.h)
find_path(SpdlogHeaders_FMT_DIR fmt/format.h)
mark_as_advanced(SpdlogHeaders_SPDLOG_DIR SpdlogHeaders_FMT_DIR)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SpdlogHeaders
    REQUIRED_VARS SpdlogHeaders_SPDLOG_DIR SpdlogHeaders_FMT_DIR)

if(SpdlogHeaders_FOUND AND NOT TARGET SpdlogHeaders::SpdlogHeaders)
    add_library(SpdlogHeaders::SpdlogHeaders INTERFACE IMPORTED)
    target_include_directories(SpdlogHeaders::SpdlogHeaders SYSTEM INTERFACE
        "${SpdlogHeaders_SPDLOG_DIR}" "${SpdlogHeaders_FMT_DIR}")
    target_compile_definitions(SpdlogHeaders::SpdlogHeaders INTERFACE FMT_HEADER_ONLY)
endif()
