# App benchmarks: they drive the running application through its tray icon and panels.
pkg_check_modules(XCB_XTEST REQUIRED IMPORTED_TARGET xcb-xtest)
add_library(tessarel_bench_panel STATIC ${CMAKE_CURRENT_LIST_DIR}/PanelDriver.cpp)
target_include_directories(tessarel_bench_panel PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tessarel_bench_panel PUBLIC PkgConfig::XCB PRIVATE PkgConfig::XCB_XTEST)
tessarel_set_warnings(tessarel_bench_panel)

# app_startup: start to tray icon, idle memory and idle wake-ups; run with app_startup.sh.
add_executable(app_startup ${CMAKE_CURRENT_LIST_DIR}/app_startup.cpp)
target_link_libraries(app_startup PRIVATE tessarel_bench_panel)
tessarel_set_warnings(app_startup)

# click_to_file: a snapshot through the panel, click to file, against scrot; run with
# click_to_file.sh.
add_executable(click_to_file ${CMAKE_CURRENT_LIST_DIR}/click_to_file.cpp)
target_link_libraries(click_to_file PRIVATE tessarel_bench_panel tessarel_bench_scenes)
tessarel_set_warnings(click_to_file)
