#include "updater/package_analysis.h"

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>

#include <string>

#include "lib/slib_file.h"
#include "lib/source_name.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

constexpr const char* kSourceFile = SourceBaseName(__FILE__);

constexpr char kAnalyze[] = "ErrUPDTIAnalyze";
constexpr char kWholeSystem[] = "ErrUPDTIAnalyze_WholeSystem";
constexpr char kSystemVersionFile[] = "/etc.defaults/VERSION";
constexpr char kDefaultInfoFile[] = "/etc.defaults/veltinfo.conf";
constexpr char kInfoFile[] = "/etc/veltinfo.conf";
constexpr char kWriteableDir[] = "/writeable";
constexpr char kDefaultFsKey[] = "defaultfs";
constexpr char kFallbackFs[] = "reiserfs";
constexpr int kCompanyLength = 32;

constexpr int kAccept = 0;
constexpr int kErrSystemVersion = 6;
constexpr int kErrPackageVersion = 7;
constexpr int kErrSystemUnique = 8;
constexpr int kErrPackageUnique = 9;
constexpr int kErrNotNewer = 10;
constexpr int kErrCompany = 12;
constexpr int kErrPatch = 13;
constexpr int kErrWriteableFull = 16;
constexpr int kErrDefaultFs = 22;

// One version description: the texts as read and their numbers.
struct VersionInfo {
  char major_text[5];
  char minor_text[5];
  char phase_text[17];
  char build_text[9];
  char unique[33];
  int major;
  int minor;
  int phase;
  int build;
};

struct PreRelease {
  int level;
  int sub_level;
};

std::string WorkFile(const char* name) { return std::string(gszWorkDir) + "/" + name; }

// Present: readable status, not empty, a regular file its owner may read.
bool IsPresentFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  return static_cast<int64_t>(st.st_size) > 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IRUSR);
}

bool ReadKey(const char* path, const char* key, char* buffer, int size) {
  return SLIBFileGetKeyValue(path, key, buffer, size, 0) > 0;
}

int ToNumber(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }

// Reads the four version keys in order; the first missing one is logged with
// its own text. False when one is missing or major or build is 0.
bool ReadVersionNumbers(const char* path, bool is_package, VersionInfo* version) {
  const struct {
    const char* key;
    char* buffer;
    int size;
    const char* missing_system;
    const char* missing_package;
  } kFields[] = {
      {"majorversion", version->major_text, sizeof(version->major_text),
       "fail to read major version", "fail to read new major version"},
      {"minorversion", version->minor_text, sizeof(version->minor_text),
       "fail to read minor version", "fail to read new minor version"},
      {"buildphase", version->phase_text, sizeof(version->phase_text), "fail to read buildphase",
       "fail to read new build phase"},
      {"buildnumber", version->build_text, sizeof(version->build_text), "fail to read buildnumber",
       "fail to read new build number"},
  };
  for (const auto& field : kFields) {
    if (!ReadKey(path, field.key, field.buffer, field.size)) {
      syslog(LOG_ERR, "%s(%d): %s", kWholeSystem, __LINE__,
             is_package ? field.missing_package : field.missing_system);
      return false;
    }
  }
  version->major = ToNumber(version->major_text);
  version->minor = ToNumber(version->minor_text);
  version->phase = ToNumber(version->phase_text);
  version->build = ToNumber(version->build_text);
  if (version->major == 0 || version->build == 0) {
    syslog(LOG_ERR, "%s(%d): buildnumber or major version == 0", kWholeSystem, __LINE__);
    return false;
  }
  return true;
}

// The running system: unique string from the factory settings, numbers
// from "/etc.defaults/VERSION".
int ErrReadSystemVersion(VersionInfo* version) {
  if (!ReadKey(kDefaultInfoFile, "unique", version->unique, sizeof(version->unique))) {
    return kErrSystemUnique;
  }
  if (!ReadVersionNumbers(kSystemVersionFile, false, version)) return kErrSystemVersion;
  return kAccept;
}

int ErrReadPackageVersion(const char* path, VersionInfo* version) {
  if (!ReadKey(path, "unique", version->unique, sizeof(version->unique))) {
    return kErrPackageUnique;
  }
  if (!ReadVersionNumbers(path, true, version)) return kErrPackageVersion;
  return kAccept;
}

// An old "fia" system of the first version line may take any 2.x package.
bool IsForcedUpgrade(const VersionInfo& old_version, const VersionInfo& new_version) {
  return strncmp(old_version.unique, "fia", 3) == 0 && old_version.major == 1 &&
         new_version.major == 2;
}

PreRelease ParsePreRelease(const char* phase_text) {
  static const struct {
    const char* prefix;
    size_t length;
    int level;
  } kLevels[] = {{"alpha", 5, 1}, {"beta", 4, 2}, {"rc", 2, 3}};
  for (const auto& level : kLevels) {
    if (strncmp(phase_text, level.prefix, level.length) == 0) {
      return {level.level, ToNumber(phase_text + level.length)};
    }
  }
  return {0, 0};
}

enum class PhaseVerdict { kRefuse, kAcceptAtOnce, kNewerPhase, kCompareBuild };

PhaseVerdict ComparePhases(const VersionInfo& old_version, const VersionInfo& new_version) {
  if (new_version.phase > old_version.phase) return PhaseVerdict::kNewerPhase;
  if (new_version.phase < old_version.phase) return PhaseVerdict::kRefuse;
  if (old_version.phase != 0) return PhaseVerdict::kCompareBuild;
  const PreRelease old_level = ParsePreRelease(old_version.phase_text);
  const PreRelease new_level = ParsePreRelease(new_version.phase_text);
  if (old_level.level == 0 || new_level.level == 0 || old_level.level > new_level.level) {
    syslog(LOG_ERR, "%s(%d): orgDevLvl = %d, newDevLvl=%d", kWholeSystem, __LINE__, old_level.level,
           new_level.level);
    return PhaseVerdict::kRefuse;
  }
  if (old_level.level < new_level.level) return PhaseVerdict::kAcceptAtOnce;
  if (old_level.sub_level > new_level.sub_level) {
    syslog(LOG_ERR, "%s(%d): orgSubLvl = %d, newSubLvl=%d", kWholeSystem, __LINE__,
           old_level.sub_level, new_level.sub_level);
    return PhaseVerdict::kRefuse;
  }
  return PhaseVerdict::kCompareBuild;
}

// 0 when the package is newer than the system (`*accept_at_once` set for a
// pre-release of a higher level), else the refusal code.
int ErrCheckNewer(const VersionInfo& old_version, const VersionInfo& new_version,
                  bool* accept_at_once) {
  if (old_version.major != 2 || new_version.major != 2) {
    syslog(LOG_ERR, "%s(%d): orgMajorVersion=%d, newMajorVersion=%d", kWholeSystem, __LINE__,
           old_version.major, new_version.major);
    return kErrPatch;
  }
  if (old_version.minor != new_version.minor) {
    syslog(LOG_ERR, "%s(%d): orgMinor=%d, newMinor=%d", kWholeSystem, __LINE__, old_version.minor,
           new_version.minor);
    return kErrNotNewer;
  }
  switch (ComparePhases(old_version, new_version)) {
    case PhaseVerdict::kRefuse:
      return kErrNotNewer;
    case PhaseVerdict::kAcceptAtOnce:
      *accept_at_once = true;
      return kAccept;
    case PhaseVerdict::kNewerPhase:
      return kAccept;
    case PhaseVerdict::kCompareBuild:
      break;
  }
  if (new_version.build <= old_version.build) {
    syslog(LOG_ERR, "%s(%d): orgBuildNumber = %d, newBuildNumber=%d", kWholeSystem, __LINE__,
           old_version.build, new_version.build);
    return kErrNotNewer;
  }
  return kAccept;
}

// Company, platform and model must match, except on the oldest systems.
bool IsSameCompany(const VersionInfo& old_version, const VersionInfo& new_version) {
  const bool exempt = old_version.major < 1 || (old_version.major == 1 && old_version.build <= 42);
  if (exempt) return true;
  if (old_version.unique[0] != '\0' && new_version.unique[0] != '\0' &&
      strncmp(old_version.unique, new_version.unique, kCompanyLength) == 0) {
    return true;
  }
  syslog(LOG_ERR, "%s(%d): szOrgCompany = [%s], szNewCompany=[%s]", kWholeSystem, __LINE__,
         old_version.unique, new_version.unique);
  return false;
}

bool IsRcFstabModel(const char* unique) {
  static const char* const kModels[] = {"orvan_ixp420_1hd", "veltara_ixp420_1hd",
                                        "veltara_powerpc_k77g+_1hd", "orvan_powerpc_1hd"};
  for (const char* model : kModels) {
    if (strcmp(unique, model) == 0) return true;
  }
  return false;
}

bool DirectoryOpens(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return false;
  closedir(dir);
  return true;
}

// Gives "/etc/veltinfo.conf" a "defaultfs" key when it has none: the
// factory value, or "reiserfs" when the factory settings lack it too.
int ErrEnsureDefaultFs(void) {
  char value[80] = "";
  if (ReadKey(kInfoFile, kDefaultFsKey, value, sizeof(value))) return kAccept;
  syslog(LOG_ERR, "%s:%d(%s): can not get [%s] in [%s]", kSourceFile, __LINE__, kWholeSystem,
         kDefaultFsKey, kInfoFile);
  if (!ReadKey(kDefaultInfoFile, kDefaultFsKey, value, sizeof(value))) {
    syslog(LOG_ERR, "%s:%d(%s): can not get [%s] in [%s]", kSourceFile, __LINE__, kWholeSystem,
           kDefaultFsKey, kDefaultInfoFile);
    snprintf(value, sizeof(value), "%s", kFallbackFs);
  }
  if (SLIBFileSetKeyValue(kInfoFile, kDefaultFsKey, value, "%s=\"%s\"\n") <= 0) {
    syslog(LOG_ERR, "%s:%d(%s): can not set [%s=%s] to %s", kSourceFile, __LINE__, kWholeSystem,
           kDefaultFsKey, value, kInfoFile);
    return kErrDefaultFs;
  }
  return kAccept;
}

// The file-system migration needs the key and 2 MiB on "/writeable"; free
// space that cannot be read does not stop the update.
int ErrPrepareWriteable(void) {
  const int code = ErrEnsureDefaultFs();
  if (code != kAccept) return code;
  struct statfs st;
  if (statfs(kWriteableDir, &st) != 0) return kAccept;
  const uint64_t available = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_bsize);
  return (available >> 20) < 2 ? kErrWriteableFull : kAccept;
}

bool IsVersion20(const VersionInfo& old_version) {
  return old_version.major == 2 && old_version.minor == 0;
}

// The configuration steps, which an old "fia" system needs whatever its
// build.
int ErrSetConfigFlags(const VersionInfo& old_version, const VersionInfo& new_version, bool forced) {
  const bool v20 = IsVersion20(old_version);
  const int phase = old_version.phase;
  const int build = old_version.build;
  if (forced || (v20 && (phase == 0 || (phase == 1 && build <= 107)))) gblCfgAtalk = 1;
  if (forced || (v20 && (phase <= 2 || (phase == 3 && build <= 210)))) gblCfgPapd = 1;
  if (forced || (v20 && (phase <= 2 || (phase == 3 && build <= 229)))) gblCfgFtpUser = 1;
  if (forced || (v20 && build <= 250)) gblCfgProfile = 1;
  if (forced || (v20 && build <= 251)) gblCfgJumboFrame = 1;
  if ((forced || (v20 && build <= 261)) && IsRcFstabModel(new_version.unique) &&
      DirectoryOpens(kWriteableDir)) {
    gblCfgRcFstab = 1;
    return ErrPrepareWriteable();
  }
  return kAccept;
}

// The steps of the run itself, for 2.0 systems only.
void SetRunFlags(const VersionInfo& old_version) {
  if (!IsVersion20(old_version)) return;
  const int phase = old_version.phase;
  const int build = old_version.build;
  if (phase == 3 && build == 284 && gblJunior &&
      strncmp(old_version.unique, "veltara_powerpc_k77g+_1hd", kCompanyLength) == 0) {
    gblNeedRecoverFIS = 1;
  }
  if (phase <= 2 || (phase == 3 && build <= 308)) gblCfgMTU = 1;
  if (phase <= 2 || (phase == 3 && build <= 350)) gblMtdDriverBuffer = 0;
  if (build <= 421) gblNeedFtpPassivePort = 1;
  if (build >= 401 && build <= 424) gPhotoDbUpgrade |= 0x1;
  if (build >= 401 && build <= 481) gPhotoDbUpgrade |= 0x2;
  if (build <= 489) gblPhotoDbReset = 1;
  if (build <= 483) gblNeedRsyncdFix = 1;
}

void LogUpgrade(const VersionInfo& old_version, const VersionInfo& new_version) {
  char line[256];
  snprintf(line, sizeof(line), "Upgrade from version %s.%s.%s.%s to version %s.%s.%s.%s",
           old_version.major_text, old_version.minor_text, old_version.phase_text,
           old_version.build_text, new_version.major_text, new_version.minor_text,
           new_version.phase_text, new_version.build_text);
  UPDTLog(line);
}

}  // namespace

int ErrUPDTIAnalyze(void) {
  if (!IsPresentFile(WorkFile("UPDATELIST"))) return ErrUPDTIAnalyze_WholeSystem();
  if (!IsPresentFile(WorkFile("DEPENDENCY"))) {
    syslog(LOG_ERR, "%s(%d)", kAnalyze, __LINE__);
    return kErrPatch;
  }
  // Partial packages are refused: a full package must not carry a list.
  gblPartialUpdate = 1;
  return kErrSystemVersion;
}

int ErrUPDTIAnalyze_WholeSystem(void) {
  const std::string package_file = WorkFile("VERSION");
  if (!IsPresentFile(package_file)) {
    syslog(LOG_ERR, "%s(%d): the file [%s]", kWholeSystem, __LINE__, package_file.c_str());
    return kErrPackageVersion;
  }
  VersionInfo old_version{};
  VersionInfo new_version{};
  int code = ErrReadSystemVersion(&old_version);
  if (code == kAccept) code = ErrReadPackageVersion(package_file.c_str(), &new_version);
  if (code != kAccept) return code;

  const bool forced = IsForcedUpgrade(old_version, new_version);
  if (forced) {
    syslog(LOG_ERR, "%s(%d): Skip OS build version checking...", kWholeSystem, __LINE__);
  } else {
    bool accept_at_once = false;
    code = ErrCheckNewer(old_version, new_version, &accept_at_once);
    // A higher pre-release level is taken as it is: no identity check, no
    // migration flags.
    if (code != kAccept || accept_at_once) return code;
  }
  if (!IsSameCompany(old_version, new_version)) return kErrCompany;
  code = ErrSetConfigFlags(old_version, new_version, forced);
  if (code != kAccept) return code;
  SetRunFlags(old_version);
  LogUpgrade(old_version, new_version);
  return kAccept;
}
