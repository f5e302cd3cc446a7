// The four requests that only the appliance's kernel answers. Everything
// that needs them goes through this module; two implementations are chosen
// at link time: sdk/kernel_appliance.cpp (the real system calls and ioctls)
// and sim/kernel_sim.cpp (the flash simulator's control file).
//
// Every function returns 0 on success, or -1 with errno set.
#ifndef SDK_KERNEL_H_
#define SDK_KERNEL_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// System call 401: stores the board's flash type word in *type; bit 0 is set
// on boards whose flash is an M-Systems flash disk. ENOSYS on a kernel
// without the call (any development machine).
int VELTKernelFlashType(uint32_t* type);

// System call 405: takes (take != 0) or gives back (take == 0) the MTD
// driver's buffer. ENOSYS on a kernel without the call.
int VELTKernelMtdDriverBuffer(int take);

// M-Systems format request on `fd` (an open /dev/mtd0): erases the whole
// flash disk into `units` units of 16384 bytes.
int VELTKernelMSysFormat(int fd, uint32_t units);

// M-Systems partition request on `fd`: eight partitions of counts[i] units
// of 16384 bytes, laid one after another.
int VELTKernelMSysPartition(int fd, const uint32_t counts[8]);

#ifdef __cplusplus
}
#endif

#endif  // SDK_KERNEL_H_
