#include <string.h>

#include "check.h"
#include "tests.h"

#include <kelp_player/kelp_player_c.h>

enum { LINE, OTHER, RELEASED };

static void on_line(void* user, const char* line) {
    tally_add(user, strstr(line, "[host]: 50% done\n") ? LINE : OTHER);
}

static void release(void* user) {
    tally_add(user, RELEASED);
}

static void expect_null(void* user, const char* line) {
    CHECK(user == NULL && line);
}

void log_test(void) {
    tally told = TALLY_INITIALIZER, never = TALLY_INITIALIZER;
    kelp_log_set_level(KELP_LOG_WARNING);
    CHECK(kelp_log_get_level() == KELP_LOG_WARNING);
    CHECK(kelp_log_set_callback(on_line, &told, release) == 1);
    CHECK(kelp_log_write(KELP_LOG_WARNING, "host", "50% done\n") == 1);
    CHECK(kelp_log_write(KELP_LOG_INFO, "host", "50% done\n") == 1); /* not written */
    CHECK(tally_get(&told, LINE) == 1);
    CHECK(kelp_log_write(KELP_LOG_NONE, "host", "x\n") == 0 && kelp_log_write(KELP_LOG_ERROR, NULL, "x\n") == 0);
    CHECK(kelp_log_write(KELP_LOG_ERROR, "host", NULL) == 0);
    CHECK(kelp_log_set_callback(on_line, &never, NULL) == 1);
    tally_wait(&told, RELEASED, 1);
    CHECK(kelp_log_set_callback(expect_null, NULL, NULL) == 1);
    CHECK(kelp_log_write(KELP_LOG_ERROR, "host", "nobody's\n") == 1);
    CHECK(kelp_log_set_callback(NULL, &told, release) == 1); /* and nobody keeps it */
    CHECK(tally_get(&told, RELEASED) == 2);
    kelp_log_set_level(KELP_LOG_NONE);
}
