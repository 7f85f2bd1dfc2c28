# libzorvbtrfssnapusage.so, its export list and its installation.
find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)

add_library(zorvbtrfssnapusage SHARED
  intl_utils/utils.cc
  intl_utils/btrfs_tool.cc
  intl_utils/plain_json.cc
  utils/task_status.cc
  utils/share_task_status.cc
  utils/task_result.cc
  utils/signal_handler.cc
  snap_calculator/snap_usage_cal.cc
  share_snap_calculator/share_snap_usage_cal.cc)
target_include_directories(zorvbtrfssnapusage
  PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>
  PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_features(zorvbtrfssnapusage INTERFACE cxx_std_17)
target_link_libraries(zorvbtrfssnapusage
  PUBLIC zorvplatform PkgConfig::JSONCPP
  PRIVATE zorv_base zorv_warnings)
target_link_options(zorvbtrfssnapusage PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map -Wl,--as-needed -Wl,--exclude-libs,ALL)
if(NOT ZORV_SANITIZE)
  target_link_options(zorvbtrfssnapusage PRIVATE -Wl,-z,defs)
endif()
set_target_properties(zorvbtrfssnapusage PROPERTIES
  VERSION ${ZORV_ABI}.${PROJECT_VERSION} SOVERSION ${ZORV_ABI}
  CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
