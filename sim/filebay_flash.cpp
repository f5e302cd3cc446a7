// filebay-flash: makes, lists, checks, extracts and compares the state
// directories of the flash simulator without mounting them.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/flash_check.h"
#include "sim/flash_import.h"
#include "sim/flash_state.h"

namespace {

using flashsim::ChipKind;
using flashsim::ChipLayout;
using flashsim::ChipState;
using flashsim::DeviceName;
using flashsim::FisRecord;
using flashsim::Hex32;
using flashsim::PartitionBytes;
using flashsim::PartitionLayout;

enum ExitCode { kOk = 0, kFound = 1, kUsage = 2, kFailed = 3 };

const char kUsageText[] =
    "usage: filebay-flash COMMAND ARGS...\n"
    "\n"
    "  create STATE_DIR LAYOUT_FILE   make a state directory from a layout: chip.img (erased,\n"
    "                                 then each partition's data at its base), layout, locks\n"
    "                                 (all unlocked), an empty trace.log and, on nor chips, the\n"
    "                                 FIS directory; an existing state's files are replaced\n"
    "                                 and its fault plan removed\n"
    "  fis STATE_DIR                  list the FIS directory\n"
    "  check STATE_DIR                check that the FIS records agree with the partition\n"
    "                                 extents, that no partitions overlap, that every\n"
    "                                 partition lies inside the chip and that the directory\n"
    "                                 ends at an erased record; prints one line per problem\n"
    "  dump STATE_DIR OUT_DIR [INDEX...]\n"
    "                                 write each partition (all when no INDEX is given) to\n"
    "                                 OUT_DIR/mtdINDEX; without INDEX also what import reads\n"
    "                                 back: OUT_DIR/chip.img (nor: every byte of the chip) or\n"
    "                                 OUT_DIR/table (msys: the driver's partition table)\n"
    "  import STATE_DIR DUMP --base ADDR [--erase-size N]\n"
    "                                 make a state directory from DUMP, every byte of a\n"
    "                                 board's NOR flash (read through JTAG or from its MTD\n"
    "                                 devices), its first byte at ADDR, in erase blocks of N\n"
    "                                 bytes (default 0x10000); the layout comes from the FIS\n"
    "                                 directory in the dump (the block holding a \"FIS\n"
    "                                 Directory\" record with the block's own address), in the\n"
    "                                 partition order of the board family whose names it\n"
    "                                 lists (eight partitions or the junior six); all blocks\n"
    "                                 unlocked\n"
    "  import-msys STATE_DIR DIR      the same for an M-Systems flash disk, from the partition\n"
    "                                 images DIR/mtd0 .. DIR/mtd7 (each its whole size) and\n"
    "                                 DIR/table (the driver's table: 8 pairs of big-endian u32\n"
    "                                 {size, data length})\n"
    "                                 Both refuse input with problems (not whole erase blocks,\n"
    "                                 an unaligned base, no directory or one that check finds\n"
    "                                 inconsistent), list every problem and write nothing\n"
    "  copy SOURCE_STATE STATE_DIR    a fresh state with SOURCE_STATE's layout, chip bytes\n"
    "                                 and lock bits, an empty trace.log and no fault plan\n"
    "  diff STATE_A STATE_B           compare layouts, lock bits and chip bytes; differing\n"
    "                                 bytes are shown as erase-block ranges of the partitions\n"
    "                                 of STATE_A (and outside them)\n"
    "\n"
    "Exit status: 0 done (check: ok, diff: same), 1 check found problems, diff found\n"
    "differences or import refused its input, 2 usage, 3 failure.\n"
    "\n"
    "A state directory holds:\n"
    "  chip.img   every byte of the chip (chip-size bytes; offset 0 is chip-base)\n"
    "  layout     the chip's geometry and partitions, in the layout format below\n"
    "  locks      one byte per erase block: '1' locked, '0' unlocked\n"
    "  faults     the fault plan, one command per line, may be absent\n"
    "  trace.log  one line per operation, appended by the simulator\n"
    "\n"
    "Layout format (text, one statement per line, \"#\" starts a comment, numbers\n"
    "in decimal or 0x hex, names in double quotes when they hold blanks):\n"
    "  kind nor|msys\n"
    "  chip-base ADDRESS          absolute address of the chip's first byte (msys: 0)\n"
    "  chip-size BYTES            a whole number of erase blocks\n"
    "  erase-size BYTES           erase block size (msys: 16384)\n"
    "  fis-device INDEX           nor: the partition that holds the FIS directory\n"
    "  partition INDEX NAME BASE SIZE [data-length=N] [mem-base=N] [entry=N] [image=FILE] "
    "[fis=no]\n"
    "            [fill=BYTE] [pattern=label|random]\n"
    "A partition's BASE is an absolute flash address; its device is /dev/mtdINDEX.\n"
    "data-length defaults to the image's size (or 0), mem-base to BASE, entry to\n"
    "0; fis=no keeps the partition out of the FIS directory that `create`\n"
    "writes. image= is read by `filebay-flash create` only (a path relative to\n"
    "the layout file). For msys, partitions lie one after another in index order\n"
    "and data-length is the driver table's data length.\n"
    "On nor chips fis-device defaults to the partition named \"FIS Directory\"; that\n"
    "partition's data-length defaults to the size of the directory `create`\n"
    "writes into it.\n"
    "Instead of image=, `create` can generate the partition's first data-length\n"
    "bytes (the whole partition when data-length is not given):\n"
    "  fill=BYTE        every byte is BYTE (0..255)\n"
    "  pattern=label    16-byte lines \"mtdI:OOOOOOOO\" padded with '.' to 15\n"
    "                   characters and ended by a newline, I the partition index,\n"
    "                   O the line's offset in the partition (8 upper-case hex digits)\n"
    "  pattern=random   xorshift32 bytes seeded with 0x9E3779B9 * (INDEX + 1),\n"
    "                   the low byte of each step\n"
    "image=, fill= and pattern= exclude each other; the FIS directory partition\n"
    "takes none of them.\n";

int Usage() {
  fputs(kUsageText, stderr);
  return kUsage;
}

int Fail(const std::string& message) {
  fprintf(stderr, "filebay-flash: %s\n", message.c_str());
  return kFailed;
}

bool ReadFile(const std::string& path, std::string* content, std::string* error) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  content->clear();
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) content->append(buffer, got);
  const bool failed = ferror(file) != 0;
  fclose(file);
  if (failed) *error = path + ": read error";
  return !failed;
}

bool WriteFile(const std::string& path, const uint8_t* data, size_t length, std::string* error) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  const bool written = length == 0 || fwrite(data, 1, length, file) == length;
  if (fclose(file) != 0 || !written) {
    *error = path + ": write error";
    return false;
  }
  return true;
}

bool MakeDirectories(const std::string& path, std::string* error) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      *error = prefix + ": " + strerror(errno);
      return false;
    }
    if (slash == std::string::npos) return true;
  }
}

std::vector<uint8_t> LabelPattern(int index, size_t length) {
  std::vector<uint8_t> data(length);
  for (size_t line = 0; line < length; line += 16) {
    char text[32];
    snprintf(text, sizeof(text), "mtd%d:%08X", index, static_cast<unsigned>(line));
    std::string row(text);
    row.resize(15, '.');
    row += '\n';
    for (size_t i = 0; i < 16 && line + i < length; ++i) data[line + i] = row[i];
  }
  return data;
}

std::vector<uint8_t> RandomPattern(int index, size_t length) {
  std::vector<uint8_t> data(length);
  uint32_t x = 0x9E3779B9u * static_cast<uint32_t>(index + 1);
  for (uint8_t& byte : data) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    byte = static_cast<uint8_t>(x);
  }
  return data;
}

// The bytes `create` writes at the partition's base; settles its data length.
bool PartitionData(PartitionLayout* partition, const std::string& layout_dir,
                   std::vector<uint8_t>* data, std::string* error) {
  const std::string where = "partition " + std::to_string(partition->index);
  data->clear();
  if (!partition->image.empty()) {
    const std::string path =
        partition->image[0] == '/' ? partition->image : layout_dir + "/" + partition->image;
    std::string content;
    if (!ReadFile(path, &content, error)) return false;
    data->assign(content.begin(), content.end());
    if (!partition->has_data_length) partition->data_length = static_cast<uint32_t>(data->size());
  } else if (partition->fill >= 0 || !partition->pattern.empty()) {
    const size_t length = partition->has_data_length ? partition->data_length : partition->size;
    if (partition->fill >= 0) {
      data->assign(length, static_cast<uint8_t>(partition->fill));
    } else if (partition->pattern == "label") {
      *data = LabelPattern(partition->index, length);
    } else {
      *data = RandomPattern(partition->index, length);
    }
    partition->data_length = static_cast<uint32_t>(length);
  }
  partition->has_data_length = true;
  if (!partition->image.empty() && data->size() > partition->size) {
    *error = where + ": image of " + std::to_string(data->size()) + " bytes does not fit in " +
             Hex32(partition->size);
    return false;
  }
  if (partition->data_length > partition->size) {
    *error = where + ": data-length " + Hex32(partition->data_length) + " exceeds its size " +
             Hex32(partition->size);
    return false;
  }
  return true;
}

FisRecord RecordOf(const PartitionLayout& partition) {
  FisRecord record;
  record.name = partition.name;
  record.flash_base = partition.base;
  record.mem_base = partition.mem_base;
  record.size = partition.size;
  record.entry_point = partition.entry_point;
  record.data_length = partition.data_length;
  return record;
}

// Erases the directory partition and writes one record per partition that
// belongs in the directory, in layout order.
bool WriteFisDirectory(ChipState* state, std::string* error) {
  const ChipLayout& layout = state->layout;
  const PartitionLayout* directory = layout.Find(layout.fis_device);
  const size_t offset = directory->base - layout.chip_base;
  std::fill(state->image.begin() + offset, state->image.begin() + offset + directory->size, 0xFF);
  size_t position = offset;
  for (const PartitionLayout& partition : layout.partitions) {
    if (!partition.in_fis) continue;
    if (position + 2 * flashsim::kFisRecordSize > offset + directory->size) {
      *error = "the FIS directory does not fit in " + DeviceName(*directory) +
               " with an erased end record";
      return false;
    }
    flashsim::EncodeFisRecord(RecordOf(partition), state->image.data() + position);
    position += flashsim::kFisRecordSize;
  }
  return true;
}

bool LoadOrReport(const std::string& dir, ChipState* state) {
  std::string error;
  if (flashsim::LoadState(dir, state, &error)) return true;
  Fail(error);
  return false;
}

// Writes the state's layout, chip.img and locks into its directory (made
// when missing), with an empty trace.log and no fault plan.
int SaveNewState(const ChipState& state) {
  const std::string& dir = state.dir;
  std::string error;
  if (!MakeDirectories(dir, &error) || !flashsim::SaveState(state, &error) ||
      !WriteFile(dir + "/trace.log", nullptr, 0, &error)) {
    return Fail(error);
  }
  if (unlink((dir + "/faults").c_str()) != 0 && errno != ENOENT) {
    return Fail(dir + "/faults: " + strerror(errno));
  }
  return kOk;
}

int Create(const std::string& dir, const std::string& layout_file) {
  std::string text;
  std::string error;
  if (!ReadFile(layout_file, &text, &error)) return Fail(error);
  ChipState state;
  if (!flashsim::ParseLayout(text, &state.layout, &error)) return Fail(layout_file + ": " + error);
  ChipLayout& layout = state.layout;
  PartitionLayout* directory = nullptr;
  if (layout.kind == ChipKind::kNor) {
    directory = layout.Find(layout.fis_device);
    if (directory == nullptr) {
      return Fail(layout_file +
                  ": no FIS directory partition (name one \"FIS Directory\" or give fis-device)");
    }
    if (!directory->image.empty() || directory->fill >= 0 || !directory->pattern.empty()) {
      return Fail(layout_file + ": the FIS directory partition takes no image=, fill= or pattern=");
    }
    if (!directory->has_data_length) {
      size_t records = 0;
      for (const PartitionLayout& partition : layout.partitions) records += partition.in_fis;
      directory->data_length = static_cast<uint32_t>(records * flashsim::kFisRecordSize);
      directory->has_data_length = true;
    }
  }
  const size_t slash = layout_file.rfind('/');
  const std::string layout_dir = slash == std::string::npos ? "." : layout_file.substr(0, slash);
  state.dir = dir;
  state.image.assign(layout.chip_size, 0xFF);
  state.locked.assign(layout.BlockCount(), 0);
  for (PartitionLayout& partition : layout.partitions) {
    std::vector<uint8_t> data;
    if (!PartitionData(&partition, layout_dir, &data, &error))
      return Fail(layout_file + ": " + error);
    std::copy(data.begin(), data.end(), state.image.begin() + (partition.base - layout.chip_base));
  }
  if (directory != nullptr && !WriteFisDirectory(&state, &error)) {
    return Fail(layout_file + ": " + error);
  }
  return SaveNewState(state);
}

// Import refuses a dump with every problem it found, and writes nothing.
int Refuse(const std::string& what, const std::vector<std::string>& problems) {
  fprintf(stderr, "filebay-flash: %s refused:\n", what.c_str());
  for (const std::string& problem : problems) fprintf(stderr, "  %s\n", problem.c_str());
  return kFound;
}

bool ParseNumberOption(const std::string& text, uint32_t* value) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = strtoull(text.c_str(), &end, 0);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || number > UINT32_MAX) {
    return false;
  }
  *value = static_cast<uint32_t>(number);
  return true;
}

// import STATE_DIR DUMP --base ADDR [--erase-size N]
int Import(const std::vector<std::string>& args) {
  uint32_t base = 0;
  uint32_t erase_size = 0x10000;
  bool has_base = false;
  for (size_t i = 3; i < args.size(); i += 2) {
    const bool known = args[i] == "--base" || args[i] == "--erase-size";
    uint32_t* target = args[i] == "--base" ? &base : &erase_size;
    if (!known || i + 1 >= args.size() || !ParseNumberOption(args[i + 1], target)) return Usage();
    has_base = has_base || args[i] == "--base";
  }
  if (!has_base) return Usage();
  std::vector<uint8_t> dump;
  std::string error;
  if (!flashsim::ReadWholeFile(args[2], &dump, &error)) return Fail(error);
  ChipState state;
  state.dir = args[1];
  std::vector<std::string> problems;
  if (!flashsim::ImportNorDump(dump, base, erase_size, &state, &problems)) {
    return Refuse("the dump " + args[2], problems);
  }
  return SaveNewState(state);
}

int ImportMSys(const std::string& dir, const std::string& images_dir) {
  ChipState state;
  state.dir = dir;
  std::vector<std::string> problems;
  if (!flashsim::ImportMSysImages(images_dir, &state, &problems)) {
    return Refuse("the flash disk images in " + images_dir, problems);
  }
  return SaveNewState(state);
}

// A fresh state with another state's layout, chip bytes and lock bits.
int Copy(const std::string& source, const std::string& dir) {
  ChipState state;
  if (!LoadOrReport(source, &state)) return kFailed;
  state.dir = dir;
  return SaveNewState(state);
}

int ListFis(const std::string& dir) {
  ChipState state;
  if (!LoadOrReport(dir, &state)) return kFailed;
  std::string error;
  const PartitionLayout* directory = flashsim::FisDirectoryPartition(state, &error);
  if (directory == nullptr) return Fail(error);
  bool terminated = false;
  const std::vector<FisRecord> records =
      flashsim::DecodeFisDirectory(PartitionBytes(state, *directory), &terminated);
  printf("Name              FLASH addr  Mem addr    Length      Entry point\n");
  for (const FisRecord& record : records) {
    printf("%-16s  0x%08X  0x%08X  0x%08X  0x%08X\n", record.name.c_str(), record.flash_base,
           record.mem_base, record.size, record.entry_point);
  }
  if (!terminated) {
    fprintf(stderr, "filebay-flash: the directory in %s has no erased end record\n",
            DeviceName(*directory).c_str());
  }
  return kOk;
}

int Check(const std::string& dir) {
  ChipState state;
  std::string error;
  // A layout that does not load (a partition outside the chip or off the
  // erase blocks, a damaged chip.img) is itself the problem to report.
  if (!flashsim::LoadState(dir, &state, &error)) {
    printf("%s\n", error.c_str());
    return kFound;
  }
  const std::vector<std::string> problems = flashsim::ConsistencyProblems(state);
  for (const std::string& problem : problems) printf("%s\n", problem.c_str());
  if (!problems.empty()) return kFound;
  printf("ok\n");
  return kOk;
}

bool ParseIndex(std::string text, int* index) {
  if (text.compare(0, 3, "mtd") == 0) text.erase(0, 3);
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *index = std::stoi(text);
  return true;
}

int Dump(const std::string& dir, const std::string& out_dir, const std::vector<std::string>& args) {
  ChipState state;
  if (!LoadOrReport(dir, &state)) return kFailed;
  std::vector<const PartitionLayout*> selected;
  for (const std::string& arg : args) {
    int index = 0;
    const PartitionLayout* partition = nullptr;
    if (ParseIndex(arg, &index)) partition = state.layout.Find(index);
    if (partition == nullptr) return Fail(dir + ": no partition " + arg);
    selected.push_back(partition);
  }
  if (args.empty()) {
    for (const PartitionLayout& partition : state.layout.partitions) selected.push_back(&partition);
  }
  std::string error;
  if (!MakeDirectories(out_dir, &error)) return Fail(error);
  for (const PartitionLayout* partition : selected) {
    const std::vector<uint8_t> bytes = PartitionBytes(state, *partition);
    const std::string path = out_dir + "/mtd" + std::to_string(partition->index);
    if (!WriteFile(path, bytes.data(), bytes.size(), &error)) return Fail(error);
  }
  if (!args.empty()) return kOk;
  // What import and import-msys read back: the whole chip as a JTAG read
  // gives it, or the flash disk driver's table.
  const bool nor = state.layout.kind == ChipKind::kNor;
  const std::vector<uint8_t> whole = nor ? state.image : flashsim::MSysTable(state.layout);
  if (!WriteFile(out_dir + (nor ? "/chip.img" : "/table"), whole.data(), whole.size(), &error)) {
    return Fail(error);
  }
  return kOk;
}

void DiffNumber(const std::string& what, uint32_t a, uint32_t b, std::vector<std::string>* out) {
  if (a != b) out->push_back("layout: " + what + " " + Hex32(a) + " -> " + Hex32(b));
}

void DiffLayouts(const ChipLayout& a, const ChipLayout& b, std::vector<std::string>* out) {
  if (a.kind != b.kind) out->push_back("layout: kind differs");
  DiffNumber("chip-base", a.chip_base, b.chip_base, out);
  DiffNumber("chip-size", a.chip_size, b.chip_size, out);
  DiffNumber("erase-size", a.erase_size, b.erase_size, out);
  if (a.fis_device != b.fis_device) {
    out->push_back("layout: fis-device " + std::to_string(a.fis_device) + " -> " +
                   std::to_string(b.fis_device));
  }
  for (const PartitionLayout& pa : a.partitions) {
    const std::string device = "mtd" + std::to_string(pa.index);
    const PartitionLayout* pb = b.Find(pa.index);
    if (pb == nullptr) {
      out->push_back("layout: " + device + " only in the first state");
      continue;
    }
    if (pa.name != pb->name) {
      out->push_back("layout: " + device + " name \"" + pa.name + "\" -> \"" + pb->name + "\"");
    }
    DiffNumber(device + " base", pa.base, pb->base, out);
    DiffNumber(device + " size", pa.size, pb->size, out);
    DiffNumber(device + " data-length", pa.data_length, pb->data_length, out);
    DiffNumber(device + " mem-base", pa.mem_base, pb->mem_base, out);
    DiffNumber(device + " entry", pa.entry_point, pb->entry_point, out);
    if (pa.in_fis != pb->in_fis) out->push_back("layout: " + device + " fis differs");
  }
  for (const PartitionLayout& pb : b.partitions) {
    if (a.Find(pb.index) == nullptr) {
      out->push_back("layout: mtd" + std::to_string(pb.index) + " only in the second state");
    }
  }
}

// Calls report(first, count) for every run of consecutive true blocks in
// [begin, end).
template <typename Report>
void ForEachRun(const std::vector<bool>& blocks, size_t begin, size_t end, Report report) {
  size_t i = begin;
  while (i < end) {
    if (!blocks[i]) {
      ++i;
      continue;
    }
    size_t run_end = i;
    while (run_end < end && blocks[run_end]) ++run_end;
    report(i, run_end - i);
    i = run_end;
  }
}

void DiffLocks(const ChipState& a, const ChipState& b, std::vector<std::string>* out) {
  const uint32_t erase = a.layout.erase_size;
  for (const uint8_t from : {0, 1}) {
    std::vector<bool> changed(a.locked.size());
    for (size_t i = 0; i < changed.size(); ++i) {
      changed[i] = a.locked[i] == from && b.locked[i] != from;
    }
    ForEachRun(changed, 0, changed.size(), [&](size_t first, size_t count) {
      const uint32_t start = a.layout.chip_base + static_cast<uint32_t>(first * erase);
      out->push_back("locks: flash " + Hex32(start) + "-" +
                     Hex32(start + static_cast<uint32_t>(count * erase) - 1) + " " +
                     (from == 0 ? "unlocked -> locked" : "locked -> unlocked"));
    });
  }
}

void DiffBytes(const ChipState& a, const ChipState& b, std::vector<std::string>* out) {
  const ChipLayout& layout = a.layout;
  const uint32_t erase = layout.erase_size;
  std::vector<bool> differs(layout.BlockCount());
  for (size_t block = 0; block < differs.size(); ++block) {
    differs[block] = memcmp(a.image.data() + block * erase, b.image.data() + block * erase, erase);
  }
  std::vector<bool> covered(differs.size());
  for (const PartitionLayout& partition : layout.partitions) {
    const size_t first = (partition.base - layout.chip_base) / erase;
    const size_t last = first + partition.size / erase;
    for (size_t i = first; i < last; ++i) covered[i] = true;
    ForEachRun(differs, first, last, [&](size_t begin, size_t count) {
      const uint32_t offset = static_cast<uint32_t>((begin - first) * erase);
      const uint32_t length = static_cast<uint32_t>(count * erase);
      out->push_back("data: " + DeviceName(partition) + " offset " + Hex32(offset) + " length " +
                     Hex32(length) + " (flash " + Hex32(partition.base + offset) + "-" +
                     Hex32(partition.base + offset + length - 1) + ")");
    });
  }
  std::vector<bool> outside(differs.size());
  for (size_t i = 0; i < differs.size(); ++i) outside[i] = differs[i] && !covered[i];
  ForEachRun(outside, 0, outside.size(), [&](size_t begin, size_t count) {
    const uint32_t offset = static_cast<uint32_t>(begin * erase);
    const uint32_t length = static_cast<uint32_t>(count * erase);
    out->push_back("data: outside partitions offset " + Hex32(offset) + " length " + Hex32(length) +
                   " (flash " + Hex32(layout.chip_base + offset) + "-" +
                   Hex32(layout.chip_base + offset + length - 1) + ")");
  });
}

int Diff(const std::string& dir_a, const std::string& dir_b) {
  ChipState a;
  ChipState b;
  if (!LoadOrReport(dir_a, &a) || !LoadOrReport(dir_b, &b)) return kFailed;
  std::vector<std::string> differences;
  DiffLayouts(a.layout, b.layout, &differences);
  if (a.layout.chip_size == b.layout.chip_size && a.layout.erase_size == b.layout.erase_size &&
      a.layout.chip_base == b.layout.chip_base) {
    DiffLocks(a, b, &differences);
    DiffBytes(a, b, &differences);
  } else {
    differences.push_back("chip: geometries differ, bytes and locks not compared");
  }
  for (const std::string& line : differences) printf("%s\n", line.c_str());
  return differences.empty() ? kOk : kFound;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return Usage();
  const std::string& command = args[0];
  if (command == "--help" || command == "-h" || command == "help") {
    fputs(kUsageText, stdout);
    return kOk;
  }
  if (command == "create" && args.size() == 3) return Create(args[1], args[2]);
  if (command == "fis" && args.size() == 2) return ListFis(args[1]);
  if (command == "check" && args.size() == 2) return Check(args[1]);
  if (command == "dump" && args.size() >= 3) {
    return Dump(args[1], args[2], std::vector<std::string>(args.begin() + 3, args.end()));
  }
  if (command == "diff" && args.size() == 3) return Diff(args[1], args[2]);
  if (command == "import" && args.size() >= 3) return Import(args);
  if (command == "import-msys" && args.size() == 3) return ImportMSys(args[1], args[2]);
  if (command == "copy" && args.size() == 3) return Copy(args[1], args[2]);
  return Usage();
}
