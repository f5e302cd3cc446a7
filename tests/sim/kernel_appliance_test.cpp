// The appliance's kernel interface on a development machine: the private
// system calls do not exist and the flash disk requests are not understood.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "sdk/kernel.h"
#include "test_support.h"

namespace {

TEST(KernelAppliance, RequestsFailAsOnAMachineWithoutTheAppliancesKernel) {
  uint32_t type = 0x12345678;
#if defined(__x86_64__) || defined(__aarch64__)
  errno = 0;
  EXPECT_EQ(-1, VELTKernelFlashType(&type));
  EXPECT_EQ(ENOSYS, errno);
  EXPECT_EQ(0x12345678u, type);
  EXPECT_EQ(-1, VELTKernelMtdDriverBuffer(1));
  EXPECT_EQ(ENOSYS, errno);
#endif
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("plain"), "data");
  const int fd = open(dir.File("plain").c_str(), O_RDWR);
  const uint32_t counts[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(-1, VELTKernelMSysFormat(fd, 967));
  EXPECT_EQ(ENOTTY, errno);
  errno = 0;
  EXPECT_EQ(-1, VELTKernelMSysPartition(fd, counts));
  EXPECT_EQ(ENOTTY, errno);
  close(fd);
  EXPECT_EQ(-1, VELTKernelFlashType(nullptr));
  EXPECT_EQ(EFAULT, errno);
  EXPECT_EQ(-1, VELTKernelMSysPartition(0, nullptr));
  EXPECT_EQ(EFAULT, errno);
}

}  // namespace
