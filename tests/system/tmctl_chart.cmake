# tmctl chart: the installed tool draws a crafted image's days; the picture is sampled where the bars and the limit must be.
find_package(PkgConfig REQUIRED)
pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo fontconfig)
kvard_system_test(tmctl_chart_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_chart_test.cpp
                  ${CMAKE_SOURCE_DIR}/tools/tmctl/chart.cpp LIBS kvard_harness PkgConfig::CAIRO)
