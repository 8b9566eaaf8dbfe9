# The core library, a program a unit.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

set(test_config_extra support/platform_standin.cpp)
set(test_config_file_extra support/platform_standin.cpp)
set(web PkgConfig::HTTPLIB PkgConfig::OPENSSL Threads::Threads)
foreach(source test_alias_config.cpp test_c_api.cpp test_config.cpp test_config_file.cpp
        test_daemon.cpp test_file_lock.cpp test_jobqueue.cpp test_register.cpp test_request.cpp
        test_request_alias.cpp test_result.cpp test_status.cpp test_tunnel.cpp)
    cmake_path(GET source STEM name)
    zaro_test(${name} SOURCES ${source} ${${name}_extra}
        LIBRARIES zaro::relayd zaro::platform PkgConfig::DAEMON ${web})
endforeach()

# The C header as a C program sees it; test_c_api makes its device and runs it.
add_executable(test_c_api_program test_c_api.c)
set_target_properties(test_c_api_program PROPERTIES
    C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_link_libraries(test_c_api_program PRIVATE zaro::flags zaro::relayd)
add_dependencies(test_c_api test_c_api_program)
target_compile_definitions(test_c_api
    PRIVATE ZARO_C_PROGRAM="$<TARGET_FILE:test_c_api_program>")

# The library's own objects, so that the linker can lead their calls to the test.
zaro_test(test_torture TIMEOUT 180
    SOURCES test_torture.cpp $<TARGET_OBJECTS:zarorelayd_lib> $<TARGET_OBJECTS:zaro_platform>
        $<TARGET_OBJECTS:zaro_app_common>
        $<TARGET_OBJECTS:zaro_app_daemon>
    LIBRARIES zaro::base PkgConfig::JSONCPP PkgConfig::CURL PkgConfig::DAEMON ${web})
target_include_directories(test_torture PRIVATE
    ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/platform/include)
target_compile_definitions(test_torture PRIVATE
    ZARO_TORTURE="${CMAKE_CURRENT_SOURCE_DIR}/torture.txt")
# Every call that the source wraps.
file(STRINGS test_torture.cpp lines REGEX "^(MINUS|ZERO|LATE|CURL|MADE|GONE|WRAP)\\(")
string(REGEX MATCHALL "(MINUS|ZERO|LATE|CURL|MADE|GONE|WRAP)\\([A-Za-z_0-9]+" wraps "${lines}")
foreach(wrap "WRAP(__open_2" ${wraps})
    string(REGEX REPLACE ".*\\(" "" seam ${wrap})
    target_link_options(test_torture PRIVATE -Wl,--wrap=${seam})
endforeach()
