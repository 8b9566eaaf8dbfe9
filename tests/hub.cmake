# The hub as a program, and some of its parts.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
find_library(FAKETIME faketimeMT.so.1 libfaketimeMT.so.1 PATH_SUFFIXES faketime REQUIRED)
# These have a PostgreSQL server of their own.
set(share_a_database test_hub_admission test_hub_ctl test_hub_hosts test_hub_members test_hub_store)
foreach(source test_hub_admission.cpp test_hub_alias.cpp test_hub_control.cpp test_hub_ctl.cpp
        test_hub_hosts.cpp test_hub_members.cpp test_hub_program.cpp test_hub_relay.cpp
        test_hub_store.cpp test_hub_strangers.cpp test_hub_web.cpp)
    cmake_path(GET source STEM name)
    set(how)
    if(name IN_LIST share_a_database)
        set(how AS_ONE TIMEOUT 600)
    endif()
    zaro_test(${name} ${how} SOURCES ${source}
        LIBRARIES zaro_hub zaro::platform PkgConfig::HTTPLIB DEPENDS zarorelay-hub zarorelay-hubctl)
    target_compile_definitions(${name} PRIVATE
        ZARO_HUB="$<TARGET_FILE:zarorelay-hub>"
        ZARO_HUBCTL="$<TARGET_FILE:zarorelay-hubctl>" ZARO_FAKETIME="${FAKETIME}")
endforeach()
