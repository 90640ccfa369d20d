/* The tests of the C interface. */
#ifndef KELP_TESTS_C_TESTS_H
#define KELP_TESTS_C_TESTS_H

void library_test(void);
void player_test(void);
void events_test(void);
void timers_test(void);
void sinks_test(void);
void failures_test(void);
void texts_test(void);
void tracks_test(void);
void statistics_test(void);
void packets_test(void);
void recorder_test(void);
void clock_test(void);
void log_test(void);
void muxer_test(void);
void sizes_test(void);
void snapshot_test(void);
void stall_test(void);
void step_test(void);
void subtitles_test(void);
void sound_test(void);
void udp_test(void);
void udp_failure_test(void);

#endif
