# The hub, whole and in the test's own process, and its program.
zaro_test(test_hub_control SOURCES test_hub_control.cpp LIBRARIES zaro_hub)
zaro_test(test_hub_relay SOURCES test_hub_relay.cpp LIBRARIES zaro_hub)
zaro_test(test_hub_alias SOURCES test_hub_alias.cpp LIBRARIES zaro_hub)
zaro_test(test_hub_program SOURCES test_hub_program.cpp LIBRARIES zaro_hub DEPENDS zarorelay-hub)
target_compile_definitions(test_hub_program PRIVATE
    ZARO_HUB_PROGRAM="$<TARGET_FILE:zarorelay-hub>")
