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
