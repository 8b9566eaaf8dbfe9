zaro_test(test_platform
    SOURCES test_platform.cpp
    LIBRARIES zaro::platform)

zaro_test(test_ssh_client
    SOURCES test_ssh_client.cpp
    DEPENDS zaro_ssh)
target_compile_definitions(test_ssh_client PRIVATE ZARO_DEVICE_BIN="${CMAKE_BINARY_DIR}/device-bin")
