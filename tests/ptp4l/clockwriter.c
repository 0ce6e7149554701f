/*
 * clockwriter: tries every clock write the clock guard covers, once each, and prints one
 * line per call: "<call> <result> <errno>". Run only without CAP_SYS_TIME, so that not even
 * a broken guard lets it move this machine's clock.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <time.h>

static void report(const char* call, int rc) {
    printf("%s %d %d\n", call, rc, rc < 0 ? errno : 0);
}

/* A frequency change of +1 ppm from the current value: small, and visible if it happened. */
static void frequency_request(struct timex* tx) {
    memset(tx, 0, sizeof *tx);
    adjtimex(tx);
    long freq = tx->freq;
    memset(tx, 0, sizeof *tx);
    tx->modes = ADJ_FREQUENCY;
    tx->freq = freq + 65536;
}

int main(void) {
    struct timex tx;
    frequency_request(&tx);
    report("clock_adjtime", clock_adjtime(CLOCK_REALTIME, &tx));
    frequency_request(&tx);
    report("adjtimex", adjtimex(&tx));
    frequency_request(&tx);
    report("ntp_adjtime", ntp_adjtime(&tx));

    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    report("clock_settime", clock_settime(CLOCK_REALTIME, &now));
    struct timeval tv;
    gettimeofday(&tv, NULL);
    report("settimeofday", settimeofday(&tv, NULL));
    struct timeval delta = {0, 1000};
    report("adjtime", adjtime(&delta, NULL));

    memset(&tx, 0, sizeof tx);
    report("read", clock_adjtime(CLOCK_REALTIME, &tx));
    return 0;
}
