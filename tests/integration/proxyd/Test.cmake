# Included by tests/integration/CMakeLists.txt for itest_proxyd: the emulator
# also runs in-process, and the daemon is driven with the platform client.
target_link_libraries(itest_${dir} PRIVATE smbus_proxyd_lib keldo_platform)
