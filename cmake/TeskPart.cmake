# tesk_part(<name> <sources...>): one object library of the system, with the
# include root and the third-party libraries every part may use.
function(tesk_part name)
  # The stub keeps a part that has no sources yet a valid target.
  set(stub ${CMAKE_CURRENT_BINARY_DIR}/${name}_stub.cpp)
  if(NOT EXISTS ${stub})
    file(WRITE ${stub} "// generated: keeps an empty part buildable\n")
  endif()
  add_library(${name} OBJECT ${stub} ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC PkgConfig::SQLITE3 PkgConfig::ICU PkgConfig::PLIST)
endfunction()

# tesk_test(<name> SOURCES <files...> PARTS <object libraries...>): one GoogleTest
# executable linked against just the parts it needs, so a half-built subsystem
# elsewhere never blocks it.
function(tesk_test name)
  cmake_parse_arguments(T "" "" "SOURCES;PARTS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  foreach(part IN LISTS T_PARTS)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${part}>)
  endforeach()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE GTest::gtest GTest::gmock GTest::gtest_main
                        PkgConfig::SQLITE3 PkgConfig::ICU PkgConfig::PLIST)
  target_compile_definitions(${name} PRIVATE TESK_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data"
                             TESK_BINARY_DIR="${PROJECT_BINARY_DIR}")
  # A test that runs away (a parser walking work it should refuse) fails in minutes.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# tesk_part_glob(<name> [EXCLUDE <files...>]): a part made of every .cpp in the
# current folder (sub-folders included), so adding a file needs no CMake edit.
function(tesk_part_glob name)
  cmake_parse_arguments(G "" "" "EXCLUDE" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(ex IN LISTS G_EXCLUDE)
    list(REMOVE_ITEM srcs ${CMAKE_CURRENT_SOURCE_DIR}/${ex})
  endforeach()
  tesk_part(${name} ${srcs})
endfunction()
