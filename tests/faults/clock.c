/* The system's clock as programs see it, set as many seconds ahead or back as the file ARBOR_CLOCK says (eight bytes,
   as the machine has them). Laid over the C library with LD_PRELOAD; clocks that nobody sets go on as they are. */

#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t* ahead;

__attribute__((constructor)) static void look_up(void) {
    const char* const name = getenv("ARBOR_CLOCK");
    const int file = name == NULL ? -1 : open(name, O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
        void* const place = mmap(NULL, sizeof *ahead, PROT_READ, MAP_SHARED, file, 0);
        ahead = place == MAP_FAILED ? NULL : place;
        close(file);
    }
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int failed = (int)syscall(SYS_clock_gettime, clock, now);
    if (failed == 0 && ahead != NULL && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += *ahead;
    }
    return failed;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    struct timespec exact;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &exact);
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* result) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != NULL) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}
