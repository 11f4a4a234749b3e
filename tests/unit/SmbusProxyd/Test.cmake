# Included by tests/CMakeLists.txt for test_SmbusProxyd: the emulator runs
# in-process, and the daemon test starts the real executable.
target_link_libraries(test_${dir} PRIVATE smbus_proxyd_lib)
target_sources(test_${dir} PRIVATE ${KELDO_ROOT}/tests/integration/support/ChildProcess.cpp)
target_include_directories(test_${dir} PRIVATE ${KELDO_ROOT}/tests/integration/support)
add_dependencies(test_${dir} keldo-smbus-proxyd)
target_compile_definitions(test_${dir} PRIVATE KELDO_PROXYD="$<TARGET_FILE:keldo-smbus-proxyd>")
