// The part of a run that is counted. The counts of instructions find it by its name, so it is never inlined.
#pragma once

extern "C" [[gnu::noinline]] inline void bench_measured(void (*body)(void *), void *argument) { body(argument); }
