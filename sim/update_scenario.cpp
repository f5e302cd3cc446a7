#include "sim/update_scenario.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace sandbox {

namespace {

constexpr char kJuniorUnique[] = "veltara_powerpc_junior";

const flashsim::PartitionLayout* FindByName(const flashsim::ChipLayout& layout,
                                            const std::string& name) {
  for (const flashsim::PartitionLayout& partition : layout.partitions) {
    if (partition.name == name) return &partition;
  }
  return nullptr;
}

std::string VersionFile(const PackageOptions& package, const std::string& unique) {
  return "majorversion=\"" + package.major + "\"\nminorversion=\"" + package.minor +
         "\"\nbuildphase=\"" + package.phase + "\"\nbuildnumber=\"" + package.build +
         "\"\nunique=\"" + (package.unique.empty() ? unique : package.unique) + "\"\n";
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsReadableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), R_OK) == 0;
}

std::string Absolute(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::absolute(path, ignored).lexically_normal().string();
}

// The board's system files that may be given, and where they go in the root.
struct SystemFile {
  const char* option;
  std::string GivenFiles::*path;
  const char* root_path;
};
const SystemFile kSystemFiles[] = {
    {"--system-version", &GivenFiles::system_version, "/etc.defaults/VERSION"},
    {"--settings", &GivenFiles::settings, "/etc/veltinfo.conf"},
    {"--factory-settings", &GivenFiles::factory_settings, "/etc.defaults/veltinfo.conf"}};

}  // namespace

bool ApplyBoard(const std::string& board, const std::string& layout_dir, Scenario* scenario,
                std::string* error) {
  if (board == "none") {
    scenario->layout_file.clear();
    return true;
  }
  if (board != "nor8" && board != "junior6" && board != "msys") {
    *error = "unknown board \"" + board + "\" (nor8, junior6, msys, none)";
    return false;
  }
  scenario->layout_file = layout_dir + "/" + board + ".layout";
  if (board == "junior6") SetKeyValue(&scenario->default_settings, "unique", kJuniorUnique);
  return true;
}

std::string SampleImageBytes(const std::string& label, uint32_t size) {
  std::string bytes;
  bytes.reserve(size + 64);
  char line[64];
  while (bytes.size() < size) {
    snprintf(line, sizeof(line), "%s new image +%08zX\n", label.c_str(), bytes.size());
    bytes += line;
  }
  bytes.resize(size);
  return bytes;
}

std::vector<PackageImage> SampleImages(const flashsim::ChipLayout& layout,
                                       const PackageOptions& package) {
  // Package file -> partition, in the order the plan writes them.
  const std::pair<const char*, const char*> kImages[] = {
      {"zImage", "zImage"}, {"rd.bin", "rd.gz"}, {"AllLib.tgz", "AllLib.tgz"}};
  std::vector<PackageImage> images;
  for (const auto& [file, part] : kImages) {
    const flashsim::PartitionLayout* partition = FindByName(layout, part);
    if (partition == nullptr) continue;
    // Three quarters of the partition, less a little so that the last block
    // is partly used; the kernel one block beyond its partition when the
    // plan is to rebalance.
    uint32_t size = partition->size / 4 * 3 - 0x123;
    if (package.rebalance && std::string(file) == "zImage")
      size = partition->size + layout.erase_size / 2;
    images.push_back({file, SampleImageBytes(file, size)});
  }
  return images;
}

std::vector<RootFile> SamplePackageFiles(const flashsim::ChipLayout& layout,
                                         const PackageOptions& package, const std::string& unique) {
  std::vector<RootFile> files;
  const std::string dir = kPackageDir;
  for (const PackageImage& image : SampleImages(layout, package)) {
    files.push_back({dir + "/" + image.file, image.bytes, "", 0644});
  }
  files.push_back({dir + "/VERSION", VersionFile(package, unique), "", 0644});
  if (package.hard_disk_archive) {
    files.push_back({dir + "/hda1.tgz", SampleImageBytes("hda1.tgz", 4096), "", 0644});
  }
  return files;
}

bool LoadLayoutFile(const std::string& path, flashsim::ChipLayout* layout, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = "cannot read " + path;
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return flashsim::ParseLayout(text.str(), layout, error);
}

bool CheckGivenFiles(const GivenFiles& given, std::string* error) {
  const std::string& package = given.package_dir;
  if (!package.empty() && !IsDirectory(package)) {
    *error = "--package " + package + ": not a directory";
    return false;
  }
  if (!package.empty() && !IsReadableFile(package + "/VERSION")) {
    *error = "--package " + package + ": not an update package (it has no VERSION)";
    return false;
  }
  std::string board;
  if (!given.flash_state.empty() && !BoardOfFlashState(given.flash_state, &board, error)) {
    *error = "--flash " + given.flash_state + ": " + *error;
    return false;
  }
  for (const SystemFile& file : kSystemFiles) {
    const std::string& path = given.*file.path;
    if (!path.empty() && !IsReadableFile(path)) {
      *error = std::string(file.option) + " " + path + ": not a readable file";
      return false;
    }
  }
  return true;
}

bool BoardOfFlashState(const std::string& dir, std::string* board, std::string* error) {
  flashsim::ChipState state;
  if (!flashsim::LoadState(dir, &state, error)) return false;
  bool has_archive = false;
  for (const flashsim::PartitionLayout& partition : state.layout.partitions) {
    has_archive = has_archive || partition.name == "AllLib.tgz";
  }
  if (state.layout.kind == flashsim::ChipKind::kMSys) {
    *board = "msys";
  } else {
    *board = has_archive ? "nor8" : "junior6";
  }
  return true;
}

bool ApplyGivenFiles(const GivenFiles& given, Scenario* scenario, std::string* error) {
  if (!CheckGivenFiles(given, error)) return false;
  if (!given.flash_state.empty()) {
    scenario->flash_state = Absolute(given.flash_state);
    scenario->layout_file = scenario->flash_state + "/layout";
  }
  if (!given.package_dir.empty()) {
    scenario->files.push_back({kPackageDir, "", Absolute(given.package_dir), 0755});
  }
  for (const SystemFile& file : kSystemFiles) {
    const std::string& path = given.*file.path;
    if (!path.empty()) scenario->files.push_back({file.root_path, "", Absolute(path), 0644});
  }
  return true;
}

}  // namespace sandbox
