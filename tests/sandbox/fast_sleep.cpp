// fast_sleep.so, preloaded into the programs that tests run in the sandbox:
// every sleep and usleep lasts a hundredth of what was asked, so that the
// production pauses (the MTU settle time, lock and kill retries) do not make
// the tests wait.
#include <time.h>
#include <unistd.h>

static int Pause(unsigned long long microseconds) {
  const unsigned long long shortened = microseconds / 100;
  const timespec pause = {static_cast<time_t>(shortened / 1000000),
                          static_cast<long>(shortened % 1000000) * 1000};
  return nanosleep(&pause, nullptr);
}

extern "C" int usleep(useconds_t microseconds) { return Pause(microseconds); }

extern "C" unsigned int sleep(unsigned int seconds) {
  Pause(seconds * 1000000ULL);
  return 0;
}
