/* How both lookup programs count: one line of "paths rounds cpu_microseconds checksum". Plain C, as the peer is. */
#ifndef FSPARSER_BENCH_LOOKUPS_H
#define FSPARSER_BENCH_LOOKUPS_H

#include <stdio.h>
#include <sys/resource.h>

/* User and system time of the process so far. */
static inline long long cpuMicroseconds(void) {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000LL + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
}

static inline void printLookups(unsigned long paths, unsigned long rounds, long long microseconds,
                                unsigned long long checksum) {
    printf("%lu %lu %lld %llu\n", paths, rounds, microseconds, checksum);
}

#endif
