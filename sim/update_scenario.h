// Appliance scenarios for rehearsing an update: the board (flash layout and
// the settings that go with it) and a sample update package whose images
// are made for that board. Shared by filebay-sandbox, filebay-rehearse and
// the end-to-end tests of the updater.
#ifndef SIM_UPDATE_SCENARIO_H_
#define SIM_UPDATE_SCENARIO_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "sim/flash_state.h"
#include "sim/sandbox.h"

namespace sandbox {

// Board "nor8", "junior6", "msys" (layout `layout_dir`/NAME.layout) or
// "none" (no flash). junior6 also makes the board's unique string
// "veltara_powerpc_junior". False with a message for an unknown board.
bool ApplyBoard(const std::string& board, const std::string& layout_dir, Scenario* scenario,
                std::string* error);

// The package directory inside the root, and the archive the run leaves on
// the volume for the next boot.
constexpr char kPackageDir[] = "/volume1/upd@te";
constexpr char kNextBootArchive[] = "/volume1/VeltUpgrade.tar.gz";

// One image of a sample package: a package file name and its bytes.
struct PackageImage {
  std::string file;
  std::string bytes;
};

struct PackageOptions {
  // The package's VERSION; unique empty: the scenario board's own.
  std::string major = "2";
  std::string minor = "0";
  std::string phase = "3";
  std::string build = "501";
  std::string unique;
  // The kernel image grows by one erase block beyond its partition, so that
  // the plan must take a block from the library archive and shift the
  // partitions after it (on the 8-partition boards: nor8 rebalances its FIS
  // directory, msys re-partitions the flash disk).
  bool rebalance = false;
  bool hard_disk_archive = true;  // "hda1.tgz"
};

// Bytes of a sample image: lines "<label> new image +OFFSET" up to `size`.
std::string SampleImageBytes(const std::string& label, uint32_t size);

// The images of a sample package for `layout`: the kernel ("zImage"), the
// root image ("rd.bin") and, on the 8-partition boards, the library archive
// ("AllLib.tgz"), each sized to fit its partition (or, with `rebalance`, the
// kernel one block too big).
std::vector<PackageImage> SampleImages(const flashsim::ChipLayout& layout,
                                       const PackageOptions& package);

// The files of a sample package in kPackageDir: the images, "VERSION" and,
// when asked, "hda1.tgz". `unique` is the board's unique string.
std::vector<RootFile> SamplePackageFiles(const flashsim::ChipLayout& layout,
                                         const PackageOptions& package, const std::string& unique);

// The layout file of a scenario, parsed; false with a message.
bool LoadLayoutFile(const std::string& path, flashsim::ChipLayout* layout, std::string* error);

// What a rehearsal takes from the engineer's desk instead of the samples and
// defaults; an empty path keeps the default. Every path is copied into the
// sandbox, never changed.
struct GivenFiles {
  // An unpacked update package ("VERSION", the images, "hda1.tgz"), copied
  // into kPackageDir instead of the sample package.
  std::string package_dir;
  // A state directory (`filebay-flash import`, `import-msys` or `create`)
  // the board's flash starts from, instead of the board's layout.
  std::string flash_state;
  std::string system_version;    // the board's /etc.defaults/VERSION
  std::string settings;          // the board's /etc/veltinfo.conf
  std::string factory_settings;  // the board's /etc.defaults/veltinfo.conf
};

// False with a message naming the path when a given path is not what it
// should be: a package directory without "VERSION" (not a package at all), a
// flash state that does not load, a system file that is not a readable file.
bool CheckGivenFiles(const GivenFiles& given, std::string* error);

// The board ("nor8", "junior6" or "msys") whose family a flash state's chip
// belongs to, for the defaults that go with the board; false with a message
// when `dir` is not a state directory.
bool BoardOfFlashState(const std::string& dir, std::string* board, std::string* error);

// Checks the given files (CheckGivenFiles) and puts them into the scenario:
// the flash state (with its layout as the scenario's layout file), the
// package, and the system files over the sandbox's default ones. A caller
// that adds a sample package does so only when no package is given.
bool ApplyGivenFiles(const GivenFiles& given, Scenario* scenario, std::string* error);

}  // namespace sandbox

#endif  // SIM_UPDATE_SCENARIO_H_
