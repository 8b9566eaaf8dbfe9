# The command line as people and scripts use it, and once beside a real daemon and hub.
if(NOT TARGET zarorelay-hub)
    return()
endif()
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
zaro_test(test_ctl
    SOURCES test_ctl.cpp test_ctl_status.cpp
    LIBRARIES zaro::relayd Threads::Threads
    DEPENDS zarorelayctl zarorelayd zarorelay-hub zaro_ssh
    TIMEOUT 180)
zaro_test(test_ctl_join
    SOURCES test_ctl_join.cpp
    LIBRARIES zaro_hub zaro::relayd PkgConfig::HTTPLIB PkgConfig::OPENSSL Threads::Threads
    DEPENDS zarorelayctl zarorelayd zarorelay-hub zaro_ssh
    TIMEOUT 180)
foreach(name test_ctl test_ctl_join)
    target_compile_definitions(${name} PRIVATE
        ZARO_CTL="$<TARGET_FILE:zarorelayctl>"
        ZARO_DAEMON="$<TARGET_FILE:zarorelayd>"
        ZARO_HUB="$<TARGET_FILE:zarorelay-hub>"
        ZARO_DEVICE_BIN="${CMAKE_BINARY_DIR}/device-bin")
endforeach()
