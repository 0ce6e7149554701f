/*
 * clockwriter: tries every clock write the clock guard covers, once each, and prints one
 * line per call: "<call> <result> <errno>". Run only without CAP_SYS_TIME, so that not even
 * a broken guard lets it move this machine's clock.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <time.h>

static void report(const char* call, int rc) {
    printf("%s %d %d\n", call, rc, rc < 0 ? errno : 0);
}

int main(void) {
    struct timex now = {0};
    adjtimex(&now);
    /* A frequency change of +1 ppm from the current value: small, and visible if it happened. */
    const struct timex request = {.modes = ADJ_FREQUENCY, .freq = now.freq + 65536};
    struct timex tx = request;
    report("clock_adjtime", clock_adjtime(CLOCK_REALTIME, &tx));
    tx = request;
    report("adjtimex", adjtimex(&tx));
    tx = request;
    report("ntp_adjtime", ntp_adjtime(&tx));

    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    report("clock_settime", clock_settime(CLOCK_REALTIME, &ts));
    struct timeval tv;
    gettimeofday(&tv, NULL);
    report("settimeofday", settimeofday(&tv, NULL));
    struct timeval delta = {0, 1000};
    report("adjtime", adjtime(&delta, NULL));

    tx = (struct timex){0};
    report("read", clock_adjtime(CLOCK_REALTIME, &tx));
    return 0;
}
