// What the host has the player's worker thread call.
#include "c/player.h"

using namespace kelp::c;

int kelp_player_run_in_worker(kelp_player* player, kelp_call call, void* user, kelp_call release) {
    return guarded(__func__, nullptr, 0, [&] {
        const auto held = hold(user, release);
        return carryOut("kelp_player_run_in_worker", player, [&](kelp_player& handle) {
            require(call, kNoCallback);
            handle.player->runInWorker([call, held] { call(held.get()); });
        });
    });
}

unsigned int kelp_player_add_timer(kelp_player* player, unsigned int interval_ms, int one_shot, kelp_call call,
                                   void* user, kelp_call release) {
    return guarded(__func__, nullptr, 0U, [&] {
        const auto held = hold(user, release);
        unsigned int id = 0;
        carryOut("kelp_player_add_timer", player, [&](kelp_player& handle) {
            require(call, kNoCallback);
            require(interval_ms > 0, "the interval is 0");
            id = handle.player->addTimer(interval_ms, one_shot != 0, [call, held] { call(held.get()); });
        });
        return id;
    });
}

int kelp_player_remove_timer(kelp_player* player, unsigned int timer_id) {
    return carryOut(__func__, player, [&](kelp_player& handle) { handle.player->removeTimer(timer_id); });
}
