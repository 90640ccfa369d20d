# Operations of both players from many threads.
add_executable(player_stress stress/player_stress.cpp stress/sound_devices.cpp e2e/http_server.cpp
                             $<TARGET_OBJECTS:kelp_e2e_support>)
target_link_libraries(player_stress PRIVATE kelp_test_settings kelp_player::kelp_player)
kelp_quick_build(player_stress)
kelp_disturb(player_stress)
add_test(NAME player_stress COMMAND player_stress --seconds 20 --seed 1)
set_tests_properties(player_stress PROPERTIES FIXTURES_REQUIRED media LABELS stress TIMEOUT 300 COST 30
                     ENVIRONMENT "${KELP_TEST_ENVIRONMENT}")
