#include "updater/package_analysis.h"

#include <ctype.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "log_lines.h"
#include "test_support.h"
#include "updater/update_run.h"

using testing_support::FileExists;
using testing_support::LoggedErrorLines;
using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

constexpr char kWorkDir[] = "/volume1/upd@te";
constexpr char kPackageVersion[] = "/volume1/upd@te/VERSION";
constexpr char kSystemVersion[] = "/etc.defaults/VERSION";
constexpr char kFactoryInfo[] = "/etc.defaults/veltinfo.conf";
constexpr char kInfo[] = "/etc/veltinfo.conf";
constexpr char kInfoTmp[] = "/etc/veltinfo.conf.tmp";
constexpr char kWriteable[] = "/writeable";
constexpr char kUpdateLog[] = "/var/log/veltupdate.log";

constexpr char kModel[] = "veltara_powerpc_2hd";
constexpr char kOther[] = "orvan_powerpc_2hd";
constexpr char kFia[] = "fiax_powerpc_1hd";
constexpr char kNearlyFia[] = "fi_powerpc_1hd";
constexpr char kFstab[] = "orvan_powerpc_1hd";
constexpr char kK77g[] = "veltara_powerpc_k77g+_1hd";

// What a missing "/etc/veltinfo.conf" key "defaultfs" becomes.
constexpr char kFactoryFs[] = "ext3";

std::string Logged(const std::string& text) { return "ErrUPDTIAnalyze_WholeSystem(N): " + text; }
std::string LoggedAt(const std::string& text) {
  return "package_analysis.cpp:N(ErrUPDTIAnalyze_WholeSystem): " + text;
}
const std::string kSkip = Logged("Skip OS build version checking...");
const std::string kNoDefaultFsInInfo = LoggedAt("can not get [defaultfs] in [/etc/veltinfo.conf]");
const std::string kNoDefaultFsInFactory =
    LoggedAt("can not get [defaultfs] in [/etc.defaults/veltinfo.conf]");

// The flags of the run as one text in table order: names of the flags that
// are set, "NoDriverBuffer" when the driver buffer was given up; any value
// other than the expected ones is shown with it.
std::string FlagsText() {
  std::string text;
  auto add = [&text](const std::string& name, int value) {
    if (value == 0) return;
    if (!text.empty()) text += ' ';
    text += name;
    if (value != 1) text += "=" + std::to_string(value);
  };
  add("Atalk", gblCfgAtalk);
  add("Papd", gblCfgPapd);
  add("FtpUser", gblCfgFtpUser);
  add("Profile", gblCfgProfile);
  add("Jumbo", gblCfgJumboFrame);
  add("RcFstab", gblCfgRcFstab);
  add("RecoverFIS", gblNeedRecoverFIS);
  add("MTU", gblCfgMTU);
  if (gblMtdDriverBuffer == 0) add("NoDriverBuffer", 1);
  if (gblMtdDriverBuffer != 0 && gblMtdDriverBuffer != 1) add("DriverBuffer", gblMtdDriverBuffer);
  add("FtpPassive", gblNeedFtpPassivePort);
  add("Photo1", gPhotoDbUpgrade & 0x1);
  add("Photo2", (gPhotoDbUpgrade & 0x2) >> 1);
  add("PhotoOther", gPhotoDbUpgrade & ~0x3);
  add("Reset", gblPhotoDbReset);
  add("Rsyncd", gblNeedRsyncdFix);
  add("Partial", gblPartialUpdate);
  return text;
}

// "2.0.3.100" -> the four key lines of a version file.
std::string VersionLines(const std::string& version) {
  static const char* const kKeys[] = {"majorversion", "minorversion", "buildphase", "buildnumber"};
  std::string lines;
  size_t start = 0;
  for (const char* key : kKeys) {
    const size_t dot = version.find('.', start);
    lines += std::string(key) + "=\"" + version.substr(start, dot - start) + "\"\n";
    start = dot == std::string::npos ? version.size() : dot + 1;
  }
  return lines;
}

std::string UniqueLine(const char* unique) {
  return unique == nullptr ? std::string() : std::string("unique=\"") + unique + "\"\n";
}

void WriteSystem(const std::string& version, const char* unique) {
  WriteFile(kSystemVersion, VersionLines(version));
  WriteFile(kFactoryInfo, UniqueLine(unique) + "defaultfs=\"" + kFactoryFs + "\"\n");
}

void WritePackage(const std::string& version, const char* unique) {
  WriteFile(kPackageVersion, VersionLines(version) + UniqueLine(unique));
}

// Checks that the update log holds exactly one entry with `text`.
void ExpectUpgradeLine(const std::string& text) {
  const std::string log = ReadFile(kUpdateLog);
  ASSERT_GT(log.size(), 20u) << log;
  std::string time_shape = log.substr(0, 19);
  for (char& c : time_shape) {
    if (isdigit(static_cast<unsigned char>(c))) c = 'd';
  }
  EXPECT_EQ("dddd/dd/dd dd:dd:dd", time_shape) << log;
  EXPECT_EQ(text + "\n", log.substr(19 + 1)) << log;
  EXPECT_EQ('\t', log[19]) << log;
}

enum class Writeable {
  kNone,     // no "/writeable"
  kFull,     // a file system with just under 2 MiB free
  kRoomy,    // exactly 2 MiB free
  kBlocked,  // roomy, but the settings file lacks "defaultfs" and cannot be rewritten
};

class PackageAnalysis : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    in_throwaway_root_ = true;
    UPDTResetRunState();
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", kWorkDir);
    ReleaseWriteable();
    std::error_code ignored;
    for (const char* path : {"/etc.defaults", kWorkDir, kInfo, kInfoTmp, kUpdateLog}) {
      std::filesystem::remove_all(path, ignored);
    }
    for (const char* dir : {"/etc.defaults", kWorkDir, "/var/log"}) {
      std::filesystem::create_directories(dir);
    }
    testing_support::SyslogRecords().clear();
  }

  void TearDown() override {
    if (in_throwaway_root_) ReleaseWriteable();
  }

  static void ReleaseWriteable() {
    while (umount2(kWriteable, MNT_DETACH) == 0) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(kWriteable, ignored);
  }

  // A "/writeable" file system of `size` (a tmpfs size option).
  static void MountWriteable(const std::string& size) {
    ASSERT_EQ(0, mkdir(kWriteable, 0755));
    ASSERT_EQ(0, mount("tmpfs", kWriteable, "tmpfs", 0, ("size=" + size).c_str()))
        << strerror(errno);
  }

  static void PrepareWriteable(Writeable writeable) {
    WriteFile(kInfo, "defaultfs=\"ext4\"\n");
    switch (writeable) {
      case Writeable::kNone:
        break;
      case Writeable::kFull:
        MountWriteable("2044k");
        break;
      case Writeable::kBlocked:
        WriteFile(kInfo, "hostname=box\n");
        ASSERT_EQ(0, mkdir(kInfoTmp, 0755));
        MountWriteable("2m");
        break;
      case Writeable::kRoomy:
        MountWriteable("2m");
        break;
    }
  }

  // A 2.0 system at build 100 and a newer package, both of model `unique`.
  static void WriteNewerPackage(const char* unique) {
    WriteSystem("2.0.3.100", unique);
    WritePackage("2.0.3.9999", unique);
  }

  bool in_throwaway_root_ = false;
};

// ------------------------------------------------------------ version rules

struct VersionCase {
  const char* name;
  const char* old_version;
  const char* new_version;
  const char* system_unique;  // nullptr: no "unique" key
  const char* package_unique;
  int junior;
  Writeable writeable;
  int code;
  const char* flags;
  std::vector<std::string> log;
  bool upgrade_line;
};

std::vector<VersionCase> VersionCases() {
  const Writeable kNone = Writeable::kNone;
  const Writeable kFull = Writeable::kFull;
  const Writeable kRoomy = Writeable::kRoomy;
  const Writeable kBlocked = Writeable::kBlocked;
  const char* const kAfter252 = "MTU NoDriverBuffer FtpPassive Reset Rsyncd";
  // clang-format off
  return {
      // Unreadable or invalid versions.
      {"SystemMajorZero", "0.0.3.100", "2.0.3.9999", kModel, kModel, 0, kNone, 6,
       "", {Logged("buildnumber or major version == 0")}, false},
      {"SystemBuildZero", "2.0.3.0", "2.0.3.9999", kModel, kModel, 0, kNone, 6,
       "", {Logged("buildnumber or major version == 0")}, false},
      {"SystemMajorNotANumber", "x.0.3.100", "2.0.3.9999", kModel, kModel, 0, kNone, 6,
       "", {Logged("buildnumber or major version == 0")}, false},
      {"PackageMajorZero", "2.0.3.100", "0.0.3.9999", kModel, kModel, 0, kNone, 7,
       "", {Logged("buildnumber or major version == 0")}, false},
      {"PackageBuildZero", "2.0.3.100", "2.0.3.0", kModel, kModel, 0, kNone, 7,
       "", {Logged("buildnumber or major version == 0")}, false},
      {"NoSystemUnique", "2.0.3.100", "2.0.3.9999", nullptr, kModel, 0, kNone, 8, "", {}, false},
      {"NoPackageUnique", "2.0.3.100", "2.0.3.9999", kModel, nullptr, 0, kNone, 9, "", {}, false},
      // Version lines.
      {"PackageMajor3", "2.0.3.100", "3.0.3.9999", kModel, kModel, 0, kNone, 13,
       "", {Logged("orgMajorVersion=2, newMajorVersion=3")}, false},
      {"SystemMajor1NotFia", "1.0.3.100", "2.0.3.9999", kModel, kModel, 0, kNone, 13,
       "", {Logged("orgMajorVersion=1, newMajorVersion=2")}, false},
      {"FiaSystemMajor2", "2.0.3.100", "3.0.3.9999", kFia, kFia, 0, kNone, 13,
       "", {Logged("orgMajorVersion=2, newMajorVersion=3")}, false},
      {"NearlyFiaSystemMajor1", "1.0.3.100", "2.0.3.9999", kNearlyFia, kNearlyFia, 0, kNone, 13,
       "", {Logged("orgMajorVersion=1, newMajorVersion=2")}, false},
      {"FiaPackageMajor1", "1.0.3.100", "1.0.3.9999", kFia, kFia, 0, kNone, 13,
       "", {Logged("orgMajorVersion=1, newMajorVersion=1")}, false},
      {"MinorDiffers", "2.0.3.100", "2.1.3.9999", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgMinor=0, newMinor=1")}, false},
      {"LowerPhase", "2.0.3.100", "2.0.2.9999", kModel, kModel, 0, kNone, 10, "", {}, false},
      {"EqualBuild500", "2.0.3.500", "2.0.3.500", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgBuildNumber = 500, newBuildNumber=500")}, false},
      {"LowerBuild", "2.0.3.500", "2.0.3.499", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgBuildNumber = 500, newBuildNumber=499")}, false},
      {"HigherPhaseLowerBuild", "2.0.2.600", "2.0.3.100", kModel, kModel, 0, kNone, 0,
       "Papd FtpUser MTU NoDriverBuffer", {}, true},
      {"CompanyDiffers", "2.0.3.100", "2.0.3.9999", kModel, kOther, 0, kNone, 12,
       "",
       {Logged("szOrgCompany = [veltara_powerpc_2hd], szNewCompany=[orvan_powerpc_2hd]")}, false},
      {"CompanyBothEmpty", "2.0.3.100", "2.0.3.9999", "", "", 0, kNone, 12,
       "", {Logged("szOrgCompany = [], szNewCompany=[]")}, false},
      // Pre-release phases.
      {"Beta2ToRc1", "2.0.beta2.100", "2.0.rc1.50", kModel, kModel, 0, kNone, 0, "", {}, false},
      {"Beta2ToRc1OtherCompany", "2.0.beta2.100", "2.0.rc1.50", kModel, kOther, 0, kNone, 0,
       "", {}, false},
      {"Alpha9ToBeta1", "2.0.alpha9.100", "2.0.beta1.100", kModel, kModel, 0, kNone, 0,
       "", {}, false},
      {"Beta3ToBeta2", "2.0.beta3.100", "2.0.beta2.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgSubLvl = 3, newSubLvl=2")}, false},
      {"Rc3ToRc2", "2.0.rc3.100", "2.0.rc2.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgSubLvl = 3, newSubLvl=2")}, false},
      {"Alpha10ToAlpha9", "2.0.alpha10.100", "2.0.alpha9.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgSubLvl = 10, newSubLvl=9")}, false},
      {"Alpha9ToAlpha10", "2.0.alpha9.490", "2.0.alpha10.491", kModel, kModel, 0, kNone, 0,
       "Atalk Papd FtpUser MTU NoDriverBuffer", {}, true},
      {"Rc1ToBeta5", "2.0.rc1.100", "2.0.beta5.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgDevLvl = 3, newDevLvl=2")}, false},
      {"Gamma1ToBeta1", "2.0.gamma1.100", "2.0.beta1.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgDevLvl = 0, newDevLvl=2")}, false},
      {"Beta1ToGamma1", "2.0.beta1.100", "2.0.gamma1.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgDevLvl = 2, newDevLvl=0")}, false},
      {"Phase0To0", "2.0.0.100", "2.0.0.200", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgDevLvl = 0, newDevLvl=0")}, false},
      {"Beta2SameBuild", "2.0.beta2.300", "2.0.beta2.300", kModel, kModel, 0, kNone, 10,
       "", {Logged("orgBuildNumber = 300, newBuildNumber=300")}, false},
      {"Beta2ToBeta3", "2.0.beta2.300", "2.0.beta3.301", kModel, kModel, 0, kNone, 0,
       "Atalk Papd FtpUser MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Beta2ToPhase1LowerBuild", "2.0.beta2.300", "2.0.1.5", kModel, kModel, 0, kNone, 0,
       "Atalk Papd FtpUser MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      // Old systems of the "fia" line skip the version check.
      {"ForcedFia", "1.0.3.500", "2.0.3.1", kFia, kFia, 0, kNone, 0,
       "Atalk Papd FtpUser Profile Jumbo", {kSkip}, true},
      {"ForcedMinorAndPhaseIgnored", "1.5.3.500", "2.0.0.1", kFia, kFia, 0, kNone, 0,
       "Atalk Papd FtpUser Profile Jumbo", {kSkip}, true},
      {"ForcedBuild42OtherCompany", "1.0.3.42", "2.0.3.1", kFia, kOther, 0, kNone, 0,
       "Atalk Papd FtpUser Profile Jumbo", {kSkip}, true},
      {"ForcedBuild43OtherCompany", "1.0.3.43", "2.0.3.1", kFia, kOther, 0, kNone, 12,
       "",
       {kSkip,
        Logged("szOrgCompany = [fiax_powerpc_1hd], szNewCompany=[orvan_powerpc_2hd]")}, false},
      {"ForcedRcFstab", "1.0.3.42", "2.0.3.1", kFia, kFstab, 0, kRoomy, 0,
       "Atalk Papd FtpUser Profile Jumbo RcFstab", {kSkip}, true},
      // Flag bounds of 2.0 systems.
      {"Phase0Build500", "2.0.0.500", "2.0.1.1", kModel, kModel, 0, kNone, 0,
       "Atalk Papd FtpUser MTU NoDriverBuffer", {}, true},
      {"Phase1Build107", "2.0.1.107", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Atalk Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase1Build108", "2.0.1.108", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase2Build100", "2.0.2.100", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build210", "2.0.3.210", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build211", "2.0.3.211", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build229", "2.0.3.229", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build230", "2.0.3.230", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build250", "2.0.3.250", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build251", "2.0.3.251", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Phase3Build252", "2.0.3.252", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       kAfter252, {}, true},
      {"Phase4Build250", "2.0.4.250", "2.0.5.1", kModel, kModel, 0, kNone, 0,
       "Profile Jumbo FtpPassive Reset Rsyncd", {}, true},
      {"RcFstabBuild261", "2.0.3.261", "2.0.3.9999", kFstab, kFstab, 0, kRoomy, 0,
       "RcFstab MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"RcFstabBuild262", "2.0.3.262", "2.0.3.9999", kFstab, kFstab, 0, kRoomy, 0,
       kAfter252, {}, true},
      {"RcFstabWithoutWriteable", "2.0.3.261", "2.0.3.9999", kFstab, kFstab, 0, kNone, 0,
       kAfter252, {}, true},
      {"RcFstabOtherModel", "2.0.3.261", "2.0.3.9999", kModel, kModel, 0, kRoomy, 0,
       kAfter252, {}, true},
      {"RcFstabWriteableFull", "2.0.3.261", "2.0.3.9999", kFstab, kFstab, 0, kFull, 16,
       "RcFstab", {}, false},
      {"RcFstabDefaultFsUnwritable", "2.0.3.261", "2.0.3.9999", kFstab, kFstab, 0, kBlocked, 22,
       "RcFstab",
       {kNoDefaultFsInInfo,
        "szKey=defaultfs, szValue=ext3",
        LoggedAt("can not set [defaultfs=ext3] to /etc/veltinfo.conf")}, false},
      {"RecoverFisBuild284Junior", "2.0.3.284", "2.0.3.9999", kK77g, kK77g, 1, kNone, 0,
       "RecoverFIS MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"RecoverFisBuild283", "2.0.3.283", "2.0.3.9999", kK77g, kK77g, 1, kNone, 0,
       kAfter252, {}, true},
      {"RecoverFisBuild285", "2.0.3.285", "2.0.3.9999", kK77g, kK77g, 1, kNone, 0,
       kAfter252, {}, true},
      {"RecoverFisNotJunior", "2.0.3.284", "2.0.3.9999", kK77g, kK77g, 0, kNone, 0,
       kAfter252, {}, true},
      {"RecoverFisPhase2", "2.0.2.284", "2.0.3.9999", kK77g, kK77g, 1, kNone, 0,
       "Papd FtpUser MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"RecoverFisOtherModel", "2.0.3.284", "2.0.3.9999", kModel, kModel, 1, kNone, 0,
       kAfter252, {}, true},
      {"RecoverFisMinor1", "2.1.3.284", "2.1.3.9999", kK77g, kK77g, 1, kNone, 0, "", {}, true},
      {"Build308", "2.0.3.308", "2.0.3.9999", kModel, kModel, 0, kNone, 0, kAfter252, {}, true},
      {"Build309", "2.0.3.309", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Build350", "2.0.3.350", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Build351", "2.0.3.351", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpPassive Reset Rsyncd", {}, true},
      {"Phase2Build351", "2.0.2.351", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Papd FtpUser MTU NoDriverBuffer FtpPassive Reset Rsyncd", {}, true},
      {"Build400", "2.0.3.400", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpPassive Reset Rsyncd", {}, true},
      {"Build401", "2.0.3.401", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpPassive Photo1 Photo2 Reset Rsyncd", {}, true},
      {"Build421", "2.0.3.421", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "FtpPassive Photo1 Photo2 Reset Rsyncd", {}, true},
      {"Build422", "2.0.3.422", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Photo1 Photo2 Reset Rsyncd", {}, true},
      {"Build424", "2.0.3.424", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Photo1 Photo2 Reset Rsyncd", {}, true},
      {"Build425", "2.0.3.425", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Photo2 Reset Rsyncd", {}, true},
      {"Build481", "2.0.3.481", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Photo2 Reset Rsyncd", {}, true},
      {"Build482", "2.0.3.482", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Reset Rsyncd", {}, true},
      {"Build483", "2.0.3.483", "2.0.3.9999", kModel, kModel, 0, kNone, 0,
       "Reset Rsyncd", {}, true},
      {"Build484", "2.0.3.484", "2.0.3.9999", kModel, kModel, 0, kNone, 0, "Reset", {}, true},
      {"Build489", "2.0.3.489", "2.0.3.9999", kModel, kModel, 0, kNone, 0, "Reset", {}, true},
      {"Build490", "2.0.3.490", "2.0.3.9999", kModel, kModel, 0, kNone, 0, "", {}, true},
      {"Minor1Build100", "2.1.3.100", "2.1.3.9999", kModel, kModel, 0, kNone, 0, "", {}, true},
  };
  // clang-format on
}

TEST_F(PackageAnalysis, VersionPairsGiveCodeFlagsAndLogLines) {
  for (const VersionCase& row : VersionCases()) {
    SCOPED_TRACE(row.name);
    SetUp();
    WriteSystem(row.old_version, row.system_unique);
    WritePackage(row.new_version, row.package_unique);
    gblJunior = row.junior;
    PrepareWriteable(row.writeable);

    EXPECT_EQ(row.code, ErrUPDTIAnalyze_WholeSystem());
    EXPECT_EQ(row.flags, FlagsText());
    EXPECT_EQ(row.log, LoggedErrorLines());
    if (row.upgrade_line) {
      ExpectUpgradeLine(std::string("Upgrade from version ") + row.old_version + " to version " +
                        row.new_version);
    } else {
      EXPECT_FALSE(FileExists(kUpdateLog)) << ReadFile(kUpdateLog);
    }
    ReleaseWriteable();
  }
}

TEST_F(PackageAnalysis, UpgradeLineCarriesTheTextsAsRead) {
  WriteFile(kSystemVersion,
            "majorversion = 02\nminorversion=\"0\"\nbuildphase=\"03\"\nbuildnumber=0100\n");
  WriteFile(kFactoryInfo, "unique=veltara_powerpc_2hd\n");
  WriteFile(kPackageVersion,
            "unique=\"veltara_powerpc_2hd\"\nbuildnumber=\"1200\"\nbuildphase=rc7x\n"
            "minorversion=00\nmajorversion=\"2\"\n");

  // Phase "rc7x" counts as 0 against the old phase "03": refused without a line.
  EXPECT_EQ(10, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
  EXPECT_FALSE(FileExists(kUpdateLog));

  WriteFile(kPackageVersion,
            "unique=\"veltara_powerpc_2hd\"\nbuildnumber=\"1200\"\nbuildphase=4\n"
            "minorversion=00\nmajorversion=\"2\"\n");
  ASSERT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  ExpectUpgradeLine("Upgrade from version 02.0.03.0100 to version 2.00.4.1200");
}

// ------------------------------------------------------ unreadable versions

TEST_F(PackageAnalysis, MissingKeyRefusesWithItsOwnLine) {
  const struct {
    bool package;
    const char* key;
    int code;
    const char* line;
  } kCases[] = {
      {false, "majorversion", 6, "fail to read major version"},
      {false, "minorversion", 6, "fail to read minor version"},
      {false, "buildphase", 6, "fail to read buildphase"},
      {false, "buildnumber", 6, "fail to read buildnumber"},
      {true, "majorversion", 7, "fail to read new major version"},
      {true, "minorversion", 7, "fail to read new minor version"},
      {true, "buildphase", 7, "fail to read new build phase"},
      {true, "buildnumber", 7, "fail to read new build number"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.key + std::string(row.package ? " of the package" : " of the system"));
    SetUp();
    WriteNewerPackage(kModel);
    const char* path = row.package ? kPackageVersion : kSystemVersion;
    const std::string content = ReadFile(path);
    const size_t start = content.find(row.key);
    ASSERT_NE(std::string::npos, start);
    WriteFile(path, content.substr(0, start) + content.substr(content.find('\n', start) + 1));

    EXPECT_EQ(row.code, ErrUPDTIAnalyze_WholeSystem());
    EXPECT_EQ(std::vector<std::string>{Logged(row.line)}, LoggedErrorLines());
    EXPECT_EQ("", FlagsText());
    EXPECT_FALSE(FileExists(kUpdateLog));
  }
}

TEST_F(PackageAnalysis, SystemIsReadBeforePackageAndUniqueBeforeVersion) {
  // No system unique string and a package without version keys: 8.
  WriteSystem("2.0.3.100", nullptr);
  WriteFile(kPackageVersion, UniqueLine(kModel));
  EXPECT_EQ(8, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());

  // A system build of 0 and a package without a unique string: 6.
  SetUp();
  WriteSystem("2.0.3.0", kModel);
  WritePackage("2.0.3.9999", nullptr);
  EXPECT_EQ(6, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{Logged("buildnumber or major version == 0")},
            LoggedErrorLines());

  // A package without a unique string and without a major version: 9.
  SetUp();
  WriteSystem("2.0.3.100", kModel);
  WriteFile(kPackageVersion, "buildnumber=1\n");
  EXPECT_EQ(9, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
}

TEST_F(PackageAnalysis, MissingSystemVersionFileRefusesWith6) {
  WriteNewerPackage(kModel);
  ASSERT_EQ(0, unlink(kSystemVersion));
  EXPECT_EQ(6, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{Logged("fail to read major version")}, LoggedErrorLines());
}

TEST_F(PackageAnalysis, ValueTooLongForItsBufferCountsAsMissing) {
  WriteNewerPackage(kModel);
  WriteFile(kSystemVersion, VersionLines("2.0.3.123456789"));  // 9 digits, room for 8
  EXPECT_EQ(6, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{Logged("fail to read buildnumber")}, LoggedErrorLines());

  SetUp();
  WriteNewerPackage(kModel);
  WriteFile(kFactoryInfo, "unique=\"" + std::string(33, 'u') + "\"\n");  // room for 32
  EXPECT_EQ(8, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
}

TEST_F(PackageAnalysis, PackageVersionFileMustBeANonEmptyReadableRegularFile) {
  const std::vector<std::string> kLine = {Logged("the file [/volume1/upd@te/VERSION]")};
  WriteSystem("2.0.3.100", kModel);
  EXPECT_EQ(7, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(kLine, LoggedErrorLines());

  const std::function<void()> kBadFiles[] = {
      [] { WriteFile(kPackageVersion, ""); },
      [] { ASSERT_EQ(0, mkdir(kPackageVersion, 0755)); },
      [] {
        WritePackage("2.0.3.9999", kModel);
        ASSERT_EQ(0, chmod(kPackageVersion, 0044));
      },
  };
  for (const auto& make_bad_file : kBadFiles) {
    SetUp();
    WriteSystem("2.0.3.100", kModel);
    make_bad_file();
    EXPECT_EQ(7, ErrUPDTIAnalyze_WholeSystem());
    EXPECT_EQ(kLine, LoggedErrorLines());
    EXPECT_FALSE(FileExists(kUpdateLog));
  }
}

// ---------------------------------------------------------- partial packages

TEST_F(PackageAnalysis, UpdateListWithDependencyIsRefusedAsPartial) {
  WriteNewerPackage(kModel);
  WriteFile(std::string(kWorkDir) + "/UPDATELIST", "zImage\n");
  WriteFile(std::string(kWorkDir) + "/DEPENDENCY", "2.0.3.100\n");

  EXPECT_EQ(6, ErrUPDTIAnalyze());
  EXPECT_EQ("Partial", FlagsText());
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
  EXPECT_FALSE(FileExists(kUpdateLog));

  // A file of 4 GiB (sparse) is present on a 32-bit board too: its size
  // neither overflows stat nor wraps to 0.
  const std::string dependency = std::string(kWorkDir) + "/DEPENDENCY";
  ASSERT_EQ(0, truncate(dependency.c_str(), static_cast<off_t>(int64_t{1} << 32)));
  EXPECT_EQ(6, ErrUPDTIAnalyze());
}

TEST_F(PackageAnalysis, UpdateListWithoutDependencyIsRefusedWith13) {
  WriteNewerPackage(kModel);
  WriteFile(std::string(kWorkDir) + "/UPDATELIST", "zImage\n");
  EXPECT_EQ(13, ErrUPDTIAnalyze());
  EXPECT_EQ(std::vector<std::string>{"ErrUPDTIAnalyze(N)"}, LoggedErrorLines());
  EXPECT_EQ("", FlagsText());

  // An empty dependency file does not count.
  SetUp();
  WriteNewerPackage(kModel);
  WriteFile(std::string(kWorkDir) + "/UPDATELIST", "zImage\n");
  WriteFile(std::string(kWorkDir) + "/DEPENDENCY", "");
  EXPECT_EQ(13, ErrUPDTIAnalyze());
  EXPECT_EQ(std::vector<std::string>{"ErrUPDTIAnalyze(N)"}, LoggedErrorLines());
  EXPECT_FALSE(FileExists(kUpdateLog));
}

TEST_F(PackageAnalysis, EmptyUpdateListIsIgnored) {
  WriteNewerPackage(kModel);
  WriteFile(std::string(kWorkDir) + "/UPDATELIST", "");
  WriteFile(std::string(kWorkDir) + "/DEPENDENCY", "2.0.3.100\n");

  EXPECT_EQ(0, ErrUPDTIAnalyze());
  EXPECT_EQ("Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", FlagsText());
  ExpectUpgradeLine("Upgrade from version 2.0.3.100 to version 2.0.3.9999");
}

TEST_F(PackageAnalysis, WithoutUpdateListTheWholeSystemIsAnalysed) {
  WriteSystem("2.0.3.100", kModel);
  WritePackage("2.0.3.9999", kOther);
  EXPECT_EQ(12, ErrUPDTIAnalyze());
  EXPECT_EQ(std::vector<std::string>{Logged(
                "szOrgCompany = [veltara_powerpc_2hd], szNewCompany=[orvan_powerpc_2hd]")},
            LoggedErrorLines());
  EXPECT_FALSE(FileExists(kUpdateLog));
}

// ----------------------------------------------------- the /writeable step

TEST_F(PackageAnalysis, MissingDefaultFsIsTakenFromFactorySettings) {
  WriteNewerPackage(kFstab);
  MountWriteable("8m");
  WriteFile(kInfo, "hostname=box\n");

  EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ("hostname=box\ndefaultfs=\"ext3\"\n", ReadFile(kInfo));
  EXPECT_EQ((std::vector<std::string>{kNoDefaultFsInInfo, "szKey=defaultfs, szValue=ext3"}),
            LoggedErrorLines());
  EXPECT_EQ("Papd FtpUser Profile Jumbo RcFstab MTU NoDriverBuffer FtpPassive Reset Rsyncd",
            FlagsText());
  ExpectUpgradeLine("Upgrade from version 2.0.3.100 to version 2.0.3.9999");
}

TEST_F(PackageAnalysis, DefaultFsMissingEverywhereBecomesReiserfs) {
  WriteNewerPackage(kFstab);
  WriteFile(kFactoryInfo, "unique=\"orvan_powerpc_1hd\"\n");
  MountWriteable("8m");
  WriteFile(kInfo, "hostname=box\n");

  EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ("hostname=box\ndefaultfs=\"reiserfs\"\n", ReadFile(kInfo));
  EXPECT_EQ((std::vector<std::string>{kNoDefaultFsInInfo, kNoDefaultFsInFactory,
                                      "szKey=defaultfs, szValue=reiserfs"}),
            LoggedErrorLines());
}

TEST_F(PackageAnalysis, MissingSettingsFileIsCreatedWithDefaultFs) {
  WriteNewerPackage(kFstab);
  MountWriteable("8m");

  EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ("defaultfs=\"ext3\"\n", ReadFile(kInfo));
}

TEST_F(PackageAnalysis, ExistingDefaultFsIsLeftAsItIs) {
  WriteNewerPackage(kFstab);
  MountWriteable("8m");
  const std::string settings = "# settings\ndefaultfs = ext2 \nhostname=box\n";
  WriteFile(kInfo, settings);

  EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(settings, ReadFile(kInfo));
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
}

TEST_F(PackageAnalysis, UnwritableDefaultFsRefusesWith22AndKeepsSettings) {
  WriteNewerPackage(kFstab);
  MountWriteable("8m");
  WriteFile(kInfo, "hostname=box\n");
  ASSERT_EQ(0, mkdir(kInfoTmp, 0755));

  EXPECT_EQ(22, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ("hostname=box\n", ReadFile(kInfo));
  EXPECT_EQ((std::vector<std::string>{kNoDefaultFsInInfo, "szKey=defaultfs, szValue=ext3",
                                      LoggedAt("can not set [defaultfs=ext3] to "
                                               "/etc/veltinfo.conf")}),
            LoggedErrorLines());
  // Flags up to the refusing step stay set; later ones are never reached.
  EXPECT_EQ("Papd FtpUser Profile Jumbo RcFstab", FlagsText());
  EXPECT_FALSE(FileExists(kUpdateLog));
}

TEST_F(PackageAnalysis, WriteableNeedsTwoMebibytesFree) {
  const struct {
    const char* size;
    int code;
  } kCases[] = {{"1m", 16}, {"2044k", 16}, {"2m", 0}, {"8m", 0}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.size);
    SetUp();
    WriteNewerPackage(kFstab);
    WriteFile(kInfo, "hostname=box\n");
    MountWriteable(row.size);

    EXPECT_EQ(row.code, ErrUPDTIAnalyze_WholeSystem());
    // The key is written before the free space is looked at.
    EXPECT_EQ("hostname=box\ndefaultfs=\"ext3\"\n", ReadFile(kInfo));
    EXPECT_EQ(row.code == 0, FileExists(kUpdateLog));
    EXPECT_EQ(row.code == 0
                  ? "Papd FtpUser Profile Jumbo RcFstab MTU NoDriverBuffer FtpPassive Reset Rsyncd"
                  : "Papd FtpUser Profile Jumbo RcFstab",
              FlagsText());
    ReleaseWriteable();
  }
}

TEST_F(PackageAnalysis, WriteableThatIsNoDirectorySkipsTheStep) {
  WriteNewerPackage(kFstab);
  WriteFile(kInfo, "hostname=box\n");
  WriteFile(kWriteable, "");

  EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ("Papd FtpUser Profile Jumbo MTU NoDriverBuffer FtpPassive Reset Rsyncd", FlagsText());
  EXPECT_EQ("hostname=box\n", ReadFile(kInfo));
  EXPECT_EQ(std::vector<std::string>{}, LoggedErrorLines());
}

TEST_F(PackageAnalysis, EveryFileSystemMigrationModelTakesTheStep) {
  for (const char* model :
       {"orvan_ixp420_1hd", "veltara_ixp420_1hd", "veltara_powerpc_k77g+_1hd", kFstab}) {
    SCOPED_TRACE(model);
    SetUp();
    WriteNewerPackage(model);
    WriteFile(kInfo, "hostname=box\n");
    MountWriteable("8m");

    EXPECT_EQ(0, ErrUPDTIAnalyze_WholeSystem());
    EXPECT_EQ(1, gblCfgRcFstab);
    EXPECT_EQ("hostname=box\ndefaultfs=\"ext3\"\n", ReadFile(kInfo));
    ReleaseWriteable();
  }
}

}  // namespace
