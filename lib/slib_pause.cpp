#include "lib/slib_pause.h"

#include <time.h>

namespace {

void SleepFor(unsigned int microseconds) {
  const struct timespec wait = {static_cast<time_t>(microseconds / 1000000),
                                static_cast<long>(microseconds % 1000000) * 1000};
  nanosleep(&wait, nullptr);
}

SLIBPauseFunction g_pause = SleepFor;

}  // namespace

void SLIBPause(unsigned int microseconds) { g_pause(microseconds); }

SLIBPauseFunction SLIBSetPauseFunction(SLIBPauseFunction pause) {
  const SLIBPauseFunction previous = g_pause;
  g_pause = pause != nullptr ? pause : SleepFor;
  return previous;
}
