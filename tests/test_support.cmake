# The tests' shared scaffolding, also used by benchmarks that need a live
# collector or throwaway certificates; included by whichever comes first.
if(TARGET zx_test_support)
  return()
endif()
find_package(GTest REQUIRED)
add_library(zx_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/test_support.cpp)
target_link_libraries(zx_test_support PUBLIC zxcore pwtdigest zxrefcollector GTest::gtest
  PRIVATE zx_warnings)
target_include_directories(zx_test_support PUBLIC ${CMAKE_CURRENT_LIST_DIR})
