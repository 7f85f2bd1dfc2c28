# Programs of the private world that the demonstration needs as well.
add_library(zorv_sandbox STATIC ${CMAKE_CURRENT_LIST_DIR}/sandbox.cc)
target_include_directories(zorv_sandbox PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(zorv_sandbox PRIVATE zorv_warnings)

add_executable(sandbox ${CMAKE_CURRENT_LIST_DIR}/sandbox_main.cc)
target_link_libraries(sandbox PRIVATE zorv_sandbox zorv_warnings)

add_executable(hold_worker
  ${CMAKE_CURRENT_LIST_DIR}/hold_worker_main.cc ${CMAKE_CURRENT_LIST_DIR}/engine_worker.cc)
target_include_directories(hold_worker PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(hold_worker PRIVATE zorv_warnings)
