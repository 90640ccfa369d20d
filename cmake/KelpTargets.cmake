# Compile and link settings that every target of the project shares.
add_library(kelp_base_settings INTERFACE)
target_compile_features(kelp_base_settings INTERFACE cxx_std_20)
target_compile_options(kelp_base_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                                    -Woverloaded-virtual)
if(KELP_WARNINGS_AS_ERRORS)
  target_compile_options(kelp_base_settings INTERFACE -Werror)
endif()
if(KELP_SANITIZE)
  target_link_options(kelp_base_settings INTERFACE -fsanitize=${KELP_SANITIZE})
  if(KELP_SANITIZE MATCHES "thread")
    # Fences are not modelled by the tool; libstdc++ only uses one where it is harmless.
    target_compile_options(kelp_base_settings INTERFACE -Wno-tsan)
  endif()
endif()
target_include_directories(kelp_base_settings INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(kelp_base_settings INTERFACE PkgConfig::FFMPEG PkgConfig::SDL2 kelp_soundtouch Threads::Threads)

# Of the library's own code.
add_library(kelp_settings INTERFACE)
target_link_libraries(kelp_settings INTERFACE kelp_base_settings)
if(KELP_SANITIZE)
  target_compile_options(kelp_settings INTERFACE -fsanitize=${KELP_SANITIZE} -fno-sanitize-recover=undefined)
endif()
if(KELP_FUZZ)
  target_compile_options(kelp_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Of the tests' code, which is to compile quickly: checks for undefined behaviour in the tests themselves would take
# longer to compile than all the rest. The library's objects that they link are instrumented in full. Programs and
# object libraries have the same flags, so that one precompiled header serves all.
set(KELP_TESTS_DIR ${PROJECT_SOURCE_DIR}/tests)
add_library(kelp_test_settings INTERFACE)
target_link_libraries(kelp_test_settings INTERFACE kelp_base_settings GTest::gmock)
target_include_directories(kelp_test_settings INTERFACE ${KELP_TESTS_DIR})
target_compile_options(kelp_test_settings INTERFACE -O0 -g1 -fPIC)
if(KELP_SANITIZE)
  string(REPLACE ",undefined" "" test_sanitize ${KELP_SANITIZE})
  target_compile_options(kelp_test_settings INTERFACE -fsanitize=${test_sanitize})
endif()

# kelp_in_pieces(TARGET FOLDER): the target's sources are compiled in pieces of eight. FOLDER is one in which it looks for
# what is included. CMake's own unity builds name sources by full paths, which ccache doesn't find again in another work
# tree.
function(kelp_in_pieces target folder)
  if(NOT KELP_QUICK_BUILD)
    return()
  endif()
  get_target_property(pieces ${target} SOURCES)
  set(sources ${pieces})
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  list(FILTER pieces EXCLUDE REGEX "\\.cpp$")
  set(number 0)
  while(sources)
    list(SUBLIST sources 0 8 taken)
    list(REMOVE_ITEM sources ${taken})
    set(text "")
    foreach(source ${taken})
      cmake_path(ABSOLUTE_PATH source NORMALIZE)
      file(RELATIVE_PATH source ${folder} ${source})
      string(APPEND text "#include \"${source}\"\n")
    endforeach()
    set(piece ${CMAKE_CURRENT_BINARY_DIR}/${target}_${number}.cpp)
    file(CONFIGURE OUTPUT ${piece} CONTENT "${text}")
    list(APPEND pieces ${piece})
    math(EXPR number "${number} + 1")
  endwhile()
  set_target_properties(${target} PROPERTIES SOURCES "${pieces}")
endfunction()

# kelp_quick_build(TARGET): a target with kelp_test_settings takes the common headers precompiled, too.
function(kelp_quick_build target)
  if(KELP_QUICK_BUILD)
    target_precompile_headers(${target} REUSE_FROM kelp_test_support)
    kelp_in_pieces(${target} ${KELP_TESTS_DIR})
  endif()
endfunction()

# What a test program finds in its environment: what the sanitizers are to overlook. One entry: test discovery doesn't
# take a list.
set(KELP_TEST_ENVIRONMENT "")
if(KELP_SANITIZE MATCHES "address")
  set(KELP_TEST_ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp")
elseif(KELP_SANITIZE MATCHES "thread")
  set(KELP_TEST_ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/tsan.supp")
endif()

# kelp_disturb(TARGET): with KELP_DISTURB the target's own code is held up at random where it locks, unlocks, waits,
# notifies and starts threads.
function(kelp_disturb target)
  if(NOT KELP_DISTURB)
    return()
  endif()
  target_sources(${target} PRIVATE $<TARGET_OBJECTS:kelp_disturbance>)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:kelp_disturbance_notice>)
  endif()
  foreach(symbol
      pthread_mutex_lock pthread_mutex_trylock pthread_mutex_unlock
      pthread_rwlock_rdlock pthread_rwlock_wrlock pthread_rwlock_unlock
      pthread_cond_timedwait pthread_cond_clockwait
      # What libstdc++ calls inside itself the linker doesn't see.
      _ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE
      _ZNSt18condition_variable10notify_oneEv
      _ZNSt18condition_variable10notify_allEv
      _ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE)
    target_link_options(${target} PRIVATE LINKER:--wrap=${symbol})
  endforeach()
endfunction()

# kelp_add_room(NAME SOURCES...): the objects of one folder below src/, as target kelp_NAME. The first is `runtime`.
function(kelp_add_room name)
  add_library(kelp_${name} OBJECT ${ARGN})
  target_link_libraries(kelp_${name} PRIVATE kelp_settings)
  target_compile_definitions(kelp_${name} PRIVATE KELP_PLAYER_BUILD)
  # What is shipped, and built anew by the packages, takes none.
  if(KELP_QUICK_BUILD AND KELP_SANITIZE)
    if(name STREQUAL "runtime")
      target_precompile_headers(kelp_runtime PRIVATE <runtime/precompiled.h>)
    else()
      target_precompile_headers(kelp_${name} REUSE_FROM kelp_runtime)
    endif()
  endif()
endfunction()

# The library: the objects of all rooms and the real time source.
function(kelp_add_shared_library)
  set(objects "")
  foreach(room runtime time clock input decode subtitle present playtask options control managed output c)
    list(APPEND objects $<TARGET_OBJECTS:kelp_${room}>)
  endforeach()
  add_library(kelp_player SHARED ${objects})
  add_library(kelp_player::kelp_player ALIAS kelp_player)
  set_target_properties(kelp_player PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                               LINKER_LANGUAGE CXX)
  target_link_libraries(kelp_player PRIVATE $<BUILD_INTERFACE:kelp_settings>)
  kelp_disturb(kelp_player)
  target_include_directories(kelp_player INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                   $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(kelp_player INTERFACE cxx_std_20)
  if(UNIX AND NOT APPLE)
    # Templates of the standard library and the classes' private functions are nothing for hosts.
    set(map ${PROJECT_SOURCE_DIR}/cmake/kelp_player.map)
    target_link_options(kelp_player PRIVATE LINKER:--version-script=${map})
    # Never unloaded: SDL and FFmpeg's network aren't shut down, and a worker that a callback released may still run.
    target_link_options(kelp_player PRIVATE LINKER:-z,nodelete)
    set_property(TARGET kelp_player APPEND PROPERTY LINK_DEPENDS ${map})
  endif()
endfunction()

# kelp_add_test(NAME ROOMS room... SOURCES file... [REAL_TIME] [PLAIN_LOG] [WRAP symbol...] [LIBRARIES lib...]
#               [LABELS label...] [TIMEOUT seconds] [FIXTURES fixture...] [COST seconds] [EACH]):
# A GoogleTest program over the objects of the rooms named. It links the fake time class unless REAL_TIME is given.
# To ctest it is one test, or with EACH as many as it has. The higher its COST, the sooner it starts.
# Every line that the rooms log is looked at for its level (tests/support/log_levels.h) unless PLAIN_LOG is given.
# A WRAPped function of a third-party library is replaced by the __wrap_ function of the test, which may call __real_.
function(kelp_add_test name)
  cmake_parse_arguments(ARG "REAL_TIME;PLAIN_LOG;EACH" "TIMEOUT;COST"
                        "ROOMS;SOURCES;WRAP;LIBRARIES;LABELS;FIXTURES" ${ARGN})
  set(objects "")
  foreach(room ${ARG_ROOMS})
    list(APPEND objects $<TARGET_OBJECTS:kelp_${room}>)
  endforeach()
  if(NOT ARG_ROOMS)
    # Tests of the shared library as a host sees it bring no objects of their own.
  elseif(ARG_REAL_TIME)
    list(APPEND objects $<TARGET_OBJECTS:kelp_time>)
  else()
    list(APPEND objects $<TARGET_OBJECTS:kelp_fake_time>)
  endif()
  if(ARG_ROOMS AND NOT ARG_PLAIN_LOG)
    list(APPEND objects $<TARGET_OBJECTS:kelp_log_level_wraps>)
    foreach(function 5Error 4Warn 4Info 5Debug)
      list(APPEND ARG_WRAP _ZN4kelp3Log${function}EPKcS2_z)
    endforeach()
  endif()
  add_executable(${name} ${ARG_SOURCES} ${objects} $<TARGET_OBJECTS:kelp_test_support>)
  target_link_libraries(${name} PRIVATE kelp_test_settings ${ARG_LIBRARIES})
  kelp_quick_build(${name})
  foreach(symbol ${ARG_WRAP})
    target_link_options(${name} PRIVATE -Wl,--wrap=${symbol})
  endforeach()
  kelp_disturb(${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  if(NOT ARG_COST)
    set(ARG_COST 1)
  endif()
  if(KELP_DISTURB)
    math(EXPR ARG_TIMEOUT "${ARG_TIMEOUT} * 3")
  endif()
  set(properties TIMEOUT ${ARG_TIMEOUT} COST ${ARG_COST})
  if(ARG_LABELS)
    list(APPEND properties LABELS "${ARG_LABELS}")
  endif()
  if(ARG_FIXTURES)
    list(APPEND properties FIXTURES_REQUIRED "${ARG_FIXTURES}")
  endif()
  if(KELP_TEST_ENVIRONMENT)
    list(APPEND properties ENVIRONMENT "${KELP_TEST_ENVIRONMENT}")
  endif()
  if(ARG_EACH)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
  else()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES ${properties})
  endif()
endfunction()
