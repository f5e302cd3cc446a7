#include "sim/update_scenario.h"

#include <stdio.h>

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

}  // namespace sandbox
