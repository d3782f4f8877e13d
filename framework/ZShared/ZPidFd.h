#pragma once

// The C library's header for process descriptors lacks C linkage up to glibc 2.36.
extern "C" {
#include <sys/pidfd.h>
}
