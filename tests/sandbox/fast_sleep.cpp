// fast_sleep.so, preloaded into the programs that tests run in the sandbox:
// every sleep, usleep and nanosleep lasts a hundredth of what was asked, so
// that the production pauses (the MTU settle time, lock and kill retries) do
// not make the tests wait.
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

namespace {

int Shortened(unsigned long long microseconds) {
  const unsigned long long shortened = microseconds / 100;
  const timespec pause = {static_cast<time_t>(shortened / 1000000),
                          static_cast<long>(shortened % 1000000) * 1000};
  using Nanosleep = int (*)(const timespec*, timespec*);
  static const Nanosleep real = reinterpret_cast<Nanosleep>(dlsym(RTLD_NEXT, "nanosleep"));
  return real(&pause, nullptr);
}

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
  Shortened(seconds * 1000000ULL);
  return 0;
}

extern "C" int usleep(useconds_t microseconds) { return Shortened(microseconds); }

extern "C" int nanosleep(const timespec* request, timespec* remaining) {
  if (remaining != nullptr) *remaining = timespec{0, 0};
  return Shortened(static_cast<unsigned long long>(request->tv_sec) * 1000000ULL +
                   static_cast<unsigned long long>(request->tv_nsec) / 1000);
}
