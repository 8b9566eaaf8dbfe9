# The programs themselves: the daemon as a device runs it, against a hub, with its own ssh and ps.
if(NOT TARGET zarorelay-hub)
    return()
endif()
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

# Each of these runs a hub, a daemon and its SSH clients, and measures times.
set(test_zarorelayd_processors PROCESSORS 4)
foreach(name test_zarorelayd_faults test_zarorelayd_hostile test_zarorelayd_secrets test_fault_table)
    set(${name}_processors PROCESSORS 2)
endforeach()
foreach(source test_zarorelayd.cpp test_zarorelayd_faults.cpp test_zarorelayd_hostile.cpp
        test_zarorelayd_secrets.cpp test_fault_table.cpp)
    cmake_path(GET source STEM name)
    zaro_test(${name} SOURCES ${source} TIMEOUT 600 ${${name}_processors}
        LIBRARIES zaro::relayd PkgConfig::HTTPLIB PkgConfig::OPENSSL Threads::Threads
        DEPENDS zarorelayd zarorelay-hub zaro_ssh)
    target_compile_definitions(${name} PRIVATE
        ZARO_DAEMON="$<TARGET_FILE:zarorelayd>"
        ZARO_HUB="$<TARGET_FILE:zarorelay-hub>"
        ZARO_DEVICE_BIN="${CMAKE_BINARY_DIR}/device-bin")
endforeach()

zaro_test(test_torn_files SOURCES test_torn_files.cpp TIMEOUT 180
    LIBRARIES zaro_app_daemon zaro::platform Threads::Threads
    DEPENDS zarorelayd zarorelay-hub zaro_ssh)
target_compile_definitions(test_torn_files PRIVATE
    ZARO_DAEMON="$<TARGET_FILE:zarorelayd>"
    ZARO_HUB="$<TARGET_FILE:zarorelay-hub>"
    ZARO_DEVICE_BIN="${CMAKE_BINARY_DIR}/device-bin")

zaro_test(test_children SOURCES test_children.cpp LIBRARIES zaro_app_daemon zaro::platform)
zaro_test(test_server_reply SOURCES test_server_reply.cpp LIBRARIES zaro_app_daemon zaro::platform)
