/* The tests of the C interface. */
#ifndef KELP_TESTS_C_TESTS_H
#define KELP_TESTS_C_TESTS_H

void library_test(void);
void player_test(void);
void events_test(void);
void timers_test(void);
void sinks_test(void);
void failures_test(void);
void tracks_test(void);
void statistics_test(void);

#endif
