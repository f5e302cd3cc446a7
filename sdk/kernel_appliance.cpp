// The kernel interface as the appliance's kernel provides it.
#include <errno.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sdk/flash_driver_requests.h"
#include "sdk/kernel.h"

namespace {

constexpr long kFlashTypeSyscall = 401;
constexpr long kDriverBufferSyscall = 405;
// 401 and 405 are the appliance's own calls. On 64-bit x86 and ARM these
// numbers are unassigned, so the call fails with ENOSYS there; elsewhere
// (32-bit x86 and ARM use them for other calls) it is not attempted.
long ApplianceSyscall(long number, long argument) {
#if defined(__powerpc__) || defined(__x86_64__) || defined(__aarch64__)
  return syscall(number, argument);
#else
  (void)number;
  (void)argument;
  errno = ENOSYS;
  return -1;
#endif
}

}  // namespace

extern "C" int VELTKernelFlashType(uint32_t* type) {
  if (type == nullptr) {
    errno = EFAULT;
    return -1;
  }
  return ApplianceSyscall(kFlashTypeSyscall, reinterpret_cast<long>(type)) == 0 ? 0 : -1;
}

extern "C" int VELTKernelMtdDriverBuffer(int take) {
  return ApplianceSyscall(kDriverBufferSyscall, take) == 0 ? 0 : -1;
}

extern "C" int VELTKernelMSysFormat(int fd, uint32_t units) {
  // The unit count travels as the argument value itself.
  return ioctl(fd, kFlashDiskFormatRequest, static_cast<unsigned long>(units)) == 0 ? 0 : -1;
}

extern "C" int VELTKernelMSysPartition(int fd, const uint32_t counts[8]) {
  if (counts == nullptr) {
    errno = EFAULT;
    return -1;
  }
  return ioctl(fd, kFlashDiskPartitionRequest, counts) == 0 ? 0 : -1;
}
