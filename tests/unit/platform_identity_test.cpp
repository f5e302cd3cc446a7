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

constexpr char kFactorySettings[] = "/etc.defaults/veltinfo.conf";
constexpr char kHardwareVersion[] = "/proc/sys/kernel/velt_hw_version";

// The hardware version file belongs to the appliance's kernel. In the
// throwaway root a small file system over /proc/sys stands in for it; the
// process entries of /proc stay the host's.
std::string EnterRootWithHardwareVersionDirectory() {
  static const std::string why = [] {
    const std::string root = testing_support::EnterThrowawayRoot();
    if (!root.empty()) return root;
    if (mount("tmpfs", "/proc/sys", "tmpfs", 0, "mode=755") != 0 ||
        mkdir("/proc/sys/kernel", 0755) != 0) {
      return std::string("cannot stand in for /proc/sys/kernel: ") + strerror(errno);
    }
    return std::string();
  }();
  return why;
}

TEST(PlatformIdentity, JuniorByUniqueValueThenByHardwareVersion) {
  const std::string why = EnterRootWithHardwareVersionDirectory();
  if (!why.empty()) GTEST_SKIP() << why;
  mkdir("/etc.defaults", 0755);
  const struct {
    const char* unique;    // null: no "unique" key in the settings
    const char* hardware;  // null: no hardware version file
    int junior;
  } kCases[] = {// "sdkdebug" at the start or "_junior" at the end decides alone
                {"sdkdebug", "1.0\n", 1},
                {"x_junior", nullptr, 1},
                {"xsdkdebug", nullptr, 0},
                {"velt_junior_x", nullptr, 0},
                {"velt_Junior", nullptr, 0},
                // six characters or fewer are never junior
                {"junior", "2.0-j\n", 0},
                {"", "2.0-j\n", 0},
                {nullptr, "2.0-j\n", 0},
                // otherwise the first line of the hardware version, less its last character
                {"abcdefg", "2.0-j\n", 1},
                {"velt_powerpc", "-j\n", 1},
                {"velt_powerpc", "2.0-J\n", 0},
                {"velt_powerpc", "2.0j\n", 0},
                {"velt_powerpc", "2.0-jx\n", 0},
                {"velt_powerpc", "2.0\n2.0-j\n", 0},
                {"velt_powerpc", "2.0-jx", 1},
                {"velt_powerpc", "", 0},
                {"velt_powerpc", nullptr, 0}};
  for (const auto& row : kCases) {
    unlink(kHardwareVersion);
    WriteFile(kFactorySettings, row.unique == nullptr ? "model=\"FB-1\"\n"
                                                      : std::string("unique=\"") + row.unique +
                                                            "\"\nmodel=\"FB-1\"\n");
    if (row.hardware != nullptr) WriteFile(kHardwareVersion, row.hardware);
    EXPECT_EQ(row.junior, VELTIsJunior())
        << (row.unique ? row.unique : "<none>") << " " << (row.hardware ? row.hardware : "<none>");
  }
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
