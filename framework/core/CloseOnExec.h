// The mode letter that asks std::fopen to close the file on exec, where the C library
// takes one, so that a program the host starts does not hold the framework's trace files
// open. Appended to a mode by literal concatenation: std::fopen(path, "wb" VESK_CLOEXEC_MODE).
#pragma once

#ifdef __GLIBC__
#define VESK_CLOEXEC_MODE "e"
#else
#define VESK_CLOEXEC_MODE ""
#endif
