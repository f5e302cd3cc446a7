// The waits between the library's retries (the event log's ten tries, the
// lock table's polling). They all go through SLIBPause so that a test can
// replace the wait and not spend its time asleep; the durations the callers
// ask for are the production ones.
#ifndef LIB_SLIB_PAUSE_H_
#define LIB_SLIB_PAUSE_H_

using SLIBPauseFunction = void (*)(unsigned int microseconds);

// Waits `microseconds` (a signal may end the wait early) through the
// installed pause function.
void SLIBPause(unsigned int microseconds);

// Installs `pause` in place of the real wait (nullptr puts the real wait
// back) and returns the one installed before. Not thread-safe: for tests.
SLIBPauseFunction SLIBSetPauseFunction(SLIBPauseFunction pause);

#endif  // LIB_SLIB_PAUSE_H_
