# App benchmarks.
# app_startup: start to tray icon, idle memory and idle wake-ups; run with app_startup.sh.
add_executable(app_startup ${CMAKE_CURRENT_LIST_DIR}/app_startup.cpp)
pkg_check_modules(XCB_XTEST REQUIRED IMPORTED_TARGET xcb-xtest)
target_link_libraries(app_startup PRIVATE PkgConfig::XCB PkgConfig::XCB_XTEST)
tessarel_set_warnings(app_startup)
