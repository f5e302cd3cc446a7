#include "sdk/platform_identity.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

using testing_support::WriteFile;

namespace {

constexpr char kHardwareVersion[] = "/proc/sys/kernel/velt_hw_version";

// VELTIsJunior with this "unique" value (null: no key) and hardware version
// file content (null: no file).
int IsJunior(const char* unique, const char* hardware) {
  WriteFile("/etc.defaults/veltinfo.conf",
            unique == nullptr ? "model=\"FB-1\"\n" : "unique=\"" + std::string(unique) + "\"\n");
  unlink(kHardwareVersion);
  if (hardware != nullptr) WriteFile(kHardwareVersion, hardware);
  return VELTIsJunior();
}

TEST(PlatformIdentity, JuniorByUniqueValueThenByTheHardwareVersionsFirstLine) {
  std::string why = testing_support::EnterThrowawayRoot();
  // The hardware version file belongs to the appliance's kernel: a small
  // file system over /proc/sys stands in for it.
  if (why.empty() && (mount("tmpfs", "/proc/sys", "tmpfs", 0, "mode=755") != 0 ||
                      mkdir("/proc/sys/kernel", 0755) != 0)) {
    why = std::string("cannot stand in for /proc/sys/kernel: ") + strerror(errno);
  }
  if (!why.empty()) GTEST_SKIP() << why;
  mkdir("/etc.defaults", 0755);
  // "sdkdebug" at the start or "_junior" at the end decides alone.
  EXPECT_EQ(1, IsJunior("sdkdebug", "1.0\n") & IsJunior("x_junior", nullptr));
  EXPECT_EQ(0, IsJunior("xsdkdebug", nullptr) | IsJunior("velt_junior_x", nullptr) |
                   IsJunior("velt_Junior", nullptr));
  // Six characters or fewer are never junior.
  EXPECT_EQ(0, IsJunior("junior", "2.0-j\n") | IsJunior("", "2.0-j\n") | IsJunior(nullptr, "-j\n"));
  // Otherwise a hardware version ending in "-j" (its last character dropped).
  EXPECT_EQ(1, IsJunior("abcdefg", "2.0-j\n") & IsJunior("velt_ppc", "-j\n") &
                   IsJunior("velt_ppc", "2.0-jx") & IsJunior("velt_ppc", "2.0-j\n2.0\n"));
  EXPECT_EQ(0, IsJunior("velt_ppc", "2.0-J\n") | IsJunior("velt_ppc", "2.0j\n") |
                   IsJunior("velt_ppc", "2.0-jx\n") | IsJunior("velt_ppc", "2.0\n2.0-j\n") |
                   IsJunior("velt_ppc", "") | IsJunior("velt_ppc", nullptr));
}

TEST(PlatformIdentity, ProcessRunsWhenTheFirstMatchingLineHoldsTheName) {
  // This test program, as the process list names it.
  std::string name = testing_support::ReadFile("/proc/self/comm");
  name.pop_back();  // the line feed
  EXPECT_EQ(1, SLIBIsProcessRunning(name.c_str()));
  EXPECT_EQ(1, SLIBIsProcessRunning(name.substr(1, 8).c_str()));  // a part of a name counts
  // The name is a pattern to grep: its line must still hold the name itself.
  EXPECT_EQ(0, SLIBIsProcessRunning(("." + name.substr(1)).c_str()));
  EXPECT_EQ(0, SLIBIsProcessRunning("updtnobody9183"));
}

}  // namespace
