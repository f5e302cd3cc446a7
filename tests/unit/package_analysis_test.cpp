#include "updater/package_analysis.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "log_lines.h"
#include "test_support.h"
#include "updater/update_run.h"

using testing_support::LoggedErrorLines;
using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

constexpr char kWorkDir[] = "/volume1/upd@te";
constexpr char kPackage[] = "/volume1/upd@te/VERSION";
constexpr char kSystem[] = "/etc.defaults/VERSION";
constexpr char kFactory[] = "/etc.defaults/veltinfo.conf";
constexpr char kInfo[] = "/etc/veltinfo.conf";
constexpr char kWriteable[] = "/writeable";
constexpr char kUpdateLog[] = "/var/log/veltupdate.log";
// Models: an ordinary one, another company's, an old "fia" one, two whose
// file systems migrate.
constexpr char kM[] = "veltara_powerpc_2hd";
constexpr char kO[] = "orvan_powerpc_2hd";
constexpr char kFia[] = "fiax_powerpc_1hd";
constexpr char kFs[] = "orvan_powerpc_1hd";
constexpr char kK77[] = "veltara_powerpc_k77g+_1hd";
using Lines = std::vector<std::string>;

// The run's flags that are set, abbreviated: Atalk Papd FtpUser Profile Jumbo
// RcFstab RecoverFIS MTU NoDriverBuffer FtpPassive Photo1 Photo2 Reset Rsyncd.
std::string Flags() {
  const std::pair<const char*, bool> kFlags[] = {
      {"At", gblCfgAtalk},           {"Pa", gblCfgPapd},          {"Fu", gblCfgFtpUser},
      {"Pr", gblCfgProfile},         {"Ju", gblCfgJumboFrame},    {"Rc", gblCfgRcFstab},
      {"Rf", gblNeedRecoverFIS},     {"Mt", gblCfgMTU},           {"Nb", gblMtdDriverBuffer == 0},
      {"Fp", gblNeedFtpPassivePort}, {"P1", gPhotoDbUpgrade & 1}, {"P2", gPhotoDbUpgrade & 2},
      {"Re", gblPhotoDbReset},       {"Rs", gblNeedRsyncdFix},    {"Partial", gblPartialUpdate}};
  std::string text;
  for (const auto& flag : kFlags) text += flag.second ? std::string(" ") + flag.first : "";
  return text.empty() ? text : text.substr(1);
}

// "2.0.3.100" -> the four version keys; a "-" leaves its key out.
std::string VersionLines(const std::string& version) {
  std::string lines;
  size_t start = 0;
  for (const char* key : {"majorversion", "minorversion", "buildphase", "buildnumber"}) {
    const size_t dot = std::min(version.find('.', start), version.size());
    const std::string value = version.substr(start, dot - start);
    lines += value == "-" ? "" : std::string(key) + "=\"" + value + "\"\n";
    start = dot + 1;
  }
  return lines;
}

std::string Unique(const char* unique) {
  return unique == nullptr ? "" : std::string("unique=\"") + unique + "\"\n";
}

std::string Logged(const std::string& text) { return "ErrUPDTIAnalyze_WholeSystem(N): " + text; }

class PackageAnalysis : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    UPDTResetRunState();
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", kWorkDir);
    while (umount2(kWriteable, MNT_DETACH) == 0) {
    }
    for (const char* path :
         {"/etc.defaults", kWorkDir, kInfo, "/etc/veltinfo.conf.tmp", kUpdateLog, kWriteable}) {
      std::filesystem::remove_all(path);
    }
    for (const char* dir : {"/etc.defaults", kWorkDir, "/var/log"}) {
      std::filesystem::create_directories(dir);
    }
    testing_support::SyslogRecords().clear();
  }

  // A system and a package; the settings have their "defaultfs" key unless
  // `info` says otherwise (null: no settings file), "/writeable" has room
  // unless `writeable` says otherwise (null: no "/writeable").
  static void Write(const std::string& old_version, const std::string& new_version,
                    const char* system, const char* package,
                    const char* info = "defaultfs=\"ext4\"\n", const char* writeable = "8m") {
    WriteFile(kSystem, VersionLines(old_version));
    WriteFile(kFactory, Unique(system) + "defaultfs=\"ext3\"\n");
    WriteFile(kPackage, VersionLines(new_version) + Unique(package));
    if (info != nullptr) WriteFile(kInfo, info);
    if (writeable == nullptr) return;
    ASSERT_EQ(0, mkdir(kWriteable, 0755));
    ASSERT_EQ(0,
              mount("tmpfs", kWriteable, "tmpfs", 0, (std::string("size=") + writeable).c_str()));
  }
};

// Codes: 6/7 system/package version unreadable, 8/9 unique string missing,
// 10 not newer, 12 other company, 13 other version line.
TEST_F(PackageAnalysis, VersionPairsGiveCodeFlagsAndLogLines) {
  const char* const kZero = "buildnumber or major version == 0";
  const char* const kSkip = "Skip OS build version checking...";
  const char* const kAfter252 = "Mt Nb Fp Re Rs";
  const char* const kForced = "At Pa Fu Pr Ju";
  struct Row {
    std::string old_version, new_version;
    const char *system, *package;
    int junior, code;
    const char* flags;  // null: taken at once, without flags and without upgrade line
    Lines log;
  };
  std::vector<Row> rows = {
      // clang-format off
      // The system is read first, the unique strings before the versions.
      {"0.0.3.0", "0.0.3.0", nullptr, kM, 0, 8, "", {}},
      {"0.0.3.100", "2.0.3.9999", kM, kM, 0, 6, "", {kZero}},
      {"2.0.3.0", "2.0.3.9999", kM, nullptr, 0, 6, "", {kZero}},
      {"2.0.3.100", "x.0.3.1", kM, nullptr, 0, 9, "", {}},
      {"2.0.3.100", "2.0.3.0", kM, kM, 0, 7, "", {kZero}},
      {"-.0.3.100", "2.0.3.9999", kM, kM, 0, 6, "", {"fail to read major version"}},
      {"2.0.3.100", "2.0.-.9999", kM, kM, 0, 7, "", {"fail to read new build phase"}},
      // Version lines, minor versions, phases and builds.
      {"2.0.3.100", "3.0.3.9999", kM, kM, 0, 13, "", {"orgMajorVersion=2, newMajorVersion=3"}},
      {"1.0.3.100", "1.0.3.9999", kFia, kFia, 0, 13, "", {"orgMajorVersion=1, newMajorVersion=1"}},
      {"2.0.3.100", "2.0.3.50", kFia, kFia, 0, 10, "", {"orgBuildNumber = 100, newBuildNumber=50"}},
      {"2.0.3.100", "2.1.3.9999", kM, kM, 0, 10, "", {"orgMinor=0, newMinor=1"}},
      {"2.0.3.100", "2.0.2.9999", kM, kM, 0, 10, "", {}},
      {"2.0.3.500", "2.0.3.500", kM, kM, 0, 10, "", {"orgBuildNumber = 500, newBuildNumber=500"}},
      {"2.0.2.600", "2.0.3.100", kM, kM, 0, 0, "Pa Fu Mt Nb", {}},
      {"02.0.03.0100", "2.00.4.1200", kM, kM, 0, 0, "Pa Fu Pr Ju Mt Nb Fp Re Rs", {}},  // as read
      {"2.0.3.100", "2.0.3.9999", kM, kO, 0, 12, "",
       {"szOrgCompany = [veltara_powerpc_2hd], szNewCompany=[orvan_powerpc_2hd]"}},
      {"2.0.3.100", "2.0.3.9999", "", "", 0, 12, "", {"szOrgCompany = [], szNewCompany=[]"}},
      // Pre-release phases: alpha < beta < rc, then the number behind.
      {"2.0.beta2.100", "2.0.rc1.50", kM, kO, 0, 0, nullptr, {}},
      {"2.0.alpha10.100", "2.0.alpha9.200", kM, kM, 0, 10, "", {"orgSubLvl = 10, newSubLvl=9"}},
      {"2.0.rc1.100", "2.0.beta5.200", kM, kM, 0, 10, "", {"orgDevLvl = 3, newDevLvl=2"}},
      {"2.0.beta2.300", "2.0.beta2.300", kM, kM, 0, 10, "",
       {"orgBuildNumber = 300, newBuildNumber=300"}},
      {"2.0.beta2.300", "2.0.1.5", kM, kM, 0, 0, "At Pa Fu Mt Nb Fp Re Rs", {}},
      // Old "fia" systems skip the version check; up to build 42 the company too.
      {"1.0.3.500", "2.0.3.1", kFia, kFia, 0, 0, kForced, {kSkip}},
      {"1.0.3.42", "2.0.3.1", kFia, kO, 0, 0, kForced, {kSkip}},
      {"1.0.3.43", "2.0.3.1", kFia, kO, 0, 12, "",
       {kSkip, "szOrgCompany = [fiax_powerpc_1hd], szNewCompany=[orvan_powerpc_2hd]"}},
      {"1.0.3.42", "2.0.3.1", kFia, kFs, 0, 0, "At Pa Fu Pr Ju Rc", {kSkip}},
      // Flags of 2.0 systems by phase; by build of phase 3 below.
      {"2.0.0.500", "2.0.1.1", kM, kM, 0, 0, "At Pa Fu Mt Nb", {}},
      {"2.0.1.107", "2.0.3.9999", kM, kM, 0, 0, "At Pa Fu Pr Ju Mt Nb Fp Re Rs", {}},
      {"2.0.1.108", "2.0.3.9999", kM, kM, 0, 0, "Pa Fu Pr Ju Mt Nb Fp Re Rs", {}},
      {"2.0.4.250", "2.0.5.1", kM, kM, 0, 0, "Pr Ju Fp Re Rs", {}},
      // The migrating models up to build 261; one junior model's directory
      // recovery at build 284 of phase 3.
      {"2.0.3.261", "2.0.3.9999", kFs, kFs, 0, 0, "Rc Mt Nb Fp Re Rs", {}},
      {"2.0.3.262", "2.0.3.9999", kFs, kFs, 0, 0, kAfter252, {}},
      {"2.0.3.284", "2.0.3.9999", kK77, kK77, 1, 0, "Rf Mt Nb Fp Re Rs", {}},
      {"2.0.3.284", "2.0.3.9999", kK77, kK77, 0, 0, kAfter252, {}},
      {"2.0.3.284", "2.0.3.9999", kM, kM, 1, 0, kAfter252, {}},
      {"2.0.2.284", "2.0.3.9999", kK77, kK77, 1, 0, "Pa Fu Mt Nb Fp Re Rs", {}},
      {"2.1.3.284", "2.1.3.9999", kK77, kK77, 1, 0, "", {}},
  };
  // A 2.0 system of phase 3 at a build (the first three characters), the flags it gets.
  const char* const kPhase3Builds[] = {
      "210 Pa Fu Pr Ju Mt Nb Fp Re Rs", "211 Fu Pr Ju Mt Nb Fp Re Rs",
      "229 Fu Pr Ju Mt Nb Fp Re Rs", "230 Pr Ju Mt Nb Fp Re Rs", "250 Pr Ju Mt Nb Fp Re Rs",
      "251 Ju Mt Nb Fp Re Rs", "252 Mt Nb Fp Re Rs", "308 Mt Nb Fp Re Rs", "309 Nb Fp Re Rs",
      "350 Nb Fp Re Rs", "351 Fp Re Rs", "400 Fp Re Rs", "401 Fp P1 P2 Re Rs",
      "421 Fp P1 P2 Re Rs", "422 P1 P2 Re Rs", "424 P1 P2 Re Rs", "425 P2 Re Rs", "481 P2 Re Rs",
      "482 Re Rs", "483 Re Rs", "484 Re", "489 Re", "490",
  };
  // clang-format on
  for (const char* build : kPhase3Builds) {
    const std::string text = build;
    const char* flags = build + std::min<size_t>(4, text.size());
    rows.push_back({"2.0.3." + text.substr(0, 3), "2.0.3.9999", kM, kM, 0, 0, flags, {}});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.old_version + " to " + row.new_version);
    SetUp();
    Write(row.old_version, row.new_version, row.system, row.package);
    gblJunior = row.junior;
    EXPECT_EQ(row.code, ErrUPDTIAnalyze_WholeSystem());
    EXPECT_EQ(row.flags == nullptr ? "" : row.flags, Flags());
    Lines log;
    for (const std::string& line : row.log) log.push_back(Logged(line));
    EXPECT_EQ(log, LoggedErrorLines());
    // The update log: the local time, a tab and the versions as read.
    const std::string line = std::regex_replace(
        "Upgrade from version " + row.old_version + " to version " + row.new_version,
        std::regex("[.]"), "[.]");
    EXPECT_EQ(row.code == 0 && row.flags != nullptr,
              std::regex_match(ReadFile(kUpdateLog), std::regex("[0-9/: ]{19}\t" + line + "\n")));
  }
}

TEST_F(PackageAnalysis, PackageFilesCountWhenNonEmptyReadableAndRegular) {
  const std::string list = std::string(kWorkDir) + "/UPDATELIST";
  const std::string dependency = std::string(kWorkDir) + "/DEPENDENCY";
  // The code and flags for these work files (null: missing).
  const auto analyse = [&](const char* list_text, const char* dependency_text) {
    SetUp();
    Write("2.0.3.100", "2.0.3.9999", kM, kO);
    if (list_text != nullptr) WriteFile(list, list_text);
    if (dependency_text != nullptr) WriteFile(dependency, dependency_text);
    const int code = ErrUPDTIAnalyze();
    return std::to_string(code) + " " + Flags();
  };
  EXPECT_EQ("6 Partial", analyse("zImage\n", "2.0.3.100\n"));
  EXPECT_EQ(Lines{}, LoggedErrorLines());
  EXPECT_EQ("13 ", analyse("zImage\n", nullptr));
  EXPECT_EQ(Lines{"ErrUPDTIAnalyze(N)"}, LoggedErrorLines());
  EXPECT_EQ("13 ", analyse("zImage\n", ""));
  EXPECT_EQ("12 ", analyse("", "2.0.3.100\n"));  // the whole system: another company
  EXPECT_EQ("12 ", analyse(nullptr, nullptr));
  // A file of 4 GiB (sparse) is present on a 32-bit board too.
  WriteFile(list, "zImage\n");
  WriteFile(dependency, "");
  ASSERT_EQ(0, truncate(dependency.c_str(), static_cast<off_t>(int64_t{1} << 32)));
  EXPECT_EQ(6, ErrUPDTIAnalyze());
  // A package version file its owner may not read is missing.
  ASSERT_EQ(0, chmod(kPackage, 0044));
  EXPECT_EQ(7, ErrUPDTIAnalyze_WholeSystem());
  EXPECT_EQ(Logged("the file [/volume1/upd@te/VERSION]"), LoggedErrorLines().back());
}

TEST_F(PackageAnalysis, MigrationNeedsDefaultFsAndTwoMebibytesOnWriteable) {
  // The code, flags and settings file after the analysis of a migrating
  // model, with the settings' temporary name taken when `blocked`.
  const auto migrate = [&](const char* info, const char* factory, const char* writeable,
                           bool blocked = false) {
    SetUp();
    Write("2.0.3.261", "2.0.3.9999", kFs, kFs, info, writeable);
    WriteFile(kFactory, Unique(kFs) + factory);
    if (blocked) mkdir("/etc/veltinfo.conf.tmp", 0755);
    const int code = ErrUPDTIAnalyze_WholeSystem();
    return std::to_string(code) + " " + Flags() + "|" + ReadFile(kInfo);
  };
  const std::string kNot = "package_analysis.cpp:N(ErrUPDTIAnalyze_WholeSystem): can not ";
  EXPECT_EQ("0 Rc Mt Nb Fp Re Rs|hostname=box\ndefaultfs=\"ext3\"\n",
            migrate("hostname=box\n", "defaultfs=ext3\n", "2m"));
  EXPECT_EQ("16 Rc|hostname=box\ndefaultfs=\"reiserfs\"\n", migrate("hostname=box\n", "", "2044k"));
  EXPECT_EQ((Lines{kNot + "get [defaultfs] in [/etc/veltinfo.conf]",
                   kNot + "get [defaultfs] in [/etc.defaults/veltinfo.conf]",
                   "szKey=defaultfs, szValue=reiserfs"}),
            LoggedErrorLines());
  EXPECT_EQ("16 Rc|defaultfs = ext2 \n", migrate("defaultfs = ext2 \n", "", "1m"));
  EXPECT_EQ(Lines{}, LoggedErrorLines());
  EXPECT_EQ("0 Mt Nb Fp Re Rs|hostname=box\n", migrate("hostname=box\n", "", nullptr));
  EXPECT_EQ("22 Rc|hostname=box\n", migrate("hostname=box\n", "defaultfs=ext3\n", "8m", true));
  EXPECT_EQ(kNot + "set [defaultfs=ext3] to /etc/veltinfo.conf", LoggedErrorLines().back());
}

}  // namespace
