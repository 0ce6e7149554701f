/*
 * clockguard: preloaded into every ptp4l of the test bed so that a servo running on this
 * machine can never steer its clocks.
 *
 * Every clock write ptp4l could reach is answered as if it had worked, without touching the
 * clock: a frequency or offset change becomes a plain read (modes 0), so the caller sees the
 * current state and a success code; a settime is dropped. Reads pass through unchanged. The
 * first write held back per function is noted once on standard error ("clockguard: ..."), so
 * a bed's log shows that the guard was in the path.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <time.h>

enum guarded_call {
    CALL_CLOCK_ADJTIME,
    CALL_ADJTIMEX,
    CALL_NTP_ADJTIME,
    CALL_ADJTIME,
    CALL_SETTIME,
    CALL_COUNT
};

static const char* const call_names[CALL_COUNT] = {"clock_adjtime", "adjtimex", "ntp_adjtime",
                                                   "adjtime", "clock_settime/settimeofday"};
static int call_noted[CALL_COUNT];

static void note_held_back(enum guarded_call call, unsigned int modes) {
    /* Racy only in how often the note is printed; the guard itself holds regardless. */
    if (!call_noted[call]) {
        call_noted[call] = 1;
        fprintf(stderr, "clockguard: held back %s (modes 0x%x)\n", call_names[call], modes);
    }
}

typedef int (*clock_adjtime_fn)(clockid_t, struct timex*);
typedef int (*adjtimex_fn)(struct timex*);
typedef int (*adjtime_fn)(const struct timeval*, struct timeval*);

/* dlsym hands back an object pointer; copying it is the conversion POSIX sanctions. */
static void next_symbol(const char* name, void* fn, size_t size) {
    void* sym = dlsym(RTLD_NEXT, name);
    memcpy(fn, &sym, size);
}

static int missing(void) {
    errno = ENOSYS;
    return -1;
}

/* Not marked nonnull like the libc prototypes, so that a NULL from the caller is tested. */
static int wants_write(const struct timex* tx) {
    return tx != NULL && tx->modes != 0;
}

/* A mode-0 read of the same clock: the caller gets the real state and status code back. */
static int read_instead(clockid_t clk, struct timex* tx) {
    clock_adjtime_fn real;
    next_symbol("clock_adjtime", &real, sizeof real);
    struct timex probe = {0};
    probe.modes = 0;
    int rc = real ? real(clk, &probe) : missing();
    if (rc >= 0) {
        *tx = probe;
    }
    return rc;
}

int clock_adjtime(clockid_t clk, struct timex* tx) {
    if (wants_write(tx)) {
        note_held_back(CALL_CLOCK_ADJTIME, tx->modes);
        return read_instead(clk, tx);
    }
    clock_adjtime_fn real;
    next_symbol("clock_adjtime", &real, sizeof real);
    return real ? real(clk, tx) : missing();
}

int adjtimex(struct timex* tx) {
    if (wants_write(tx)) {
        note_held_back(CALL_ADJTIMEX, tx->modes);
        return read_instead(CLOCK_REALTIME, tx);
    }
    adjtimex_fn real;
    next_symbol("adjtimex", &real, sizeof real);
    return real ? real(tx) : missing();
}

int ntp_adjtime(struct timex* tx) {
    if (wants_write(tx)) {
        note_held_back(CALL_NTP_ADJTIME, tx->modes);
        return read_instead(CLOCK_REALTIME, tx);
    }
    adjtimex_fn real;
    next_symbol("ntp_adjtime", &real, sizeof real);
    return real ? real(tx) : missing();
}

int clock_settime(clockid_t clk, const struct timespec* tp) {
    (void)clk;
    (void)tp;
    note_held_back(CALL_SETTIME, 0);
    return 0;
}

int settimeofday(const struct timeval* tv, const struct timezone* tz) {
    (void)tv;
    (void)tz;
    note_held_back(CALL_SETTIME, 0);
    return 0;
}

int adjtime(const struct timeval* delta, struct timeval* olddelta) {
    adjtime_fn real;
    next_symbol("adjtime", &real, sizeof real);
    if (delta) {
        note_held_back(CALL_ADJTIME, 0);
        delta = NULL; /* still report the slew in progress, start none */
    }
    return real ? real(delta, olddelta) : missing();
}
