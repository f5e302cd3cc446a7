#include "sim/flash_state.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "lib/unique_fd.h"

namespace flashsim {

namespace {

constexpr char kFisDirectoryName[] = "FIS Directory";
constexpr size_t kMaxNameLength = kFisNameSize - 1;

std::string LinePrefix(int line) { return "line " + std::to_string(line) + ": "; }

// Splits one statement into words: blanks separate words, double quotes group
// blanks into a word (also inside a word, as in image="a b"), and "#" outside
// quotes ends the line.
bool SplitWords(const std::string& line, std::vector<std::string>* words, std::string* error) {
  words->clear();
  std::string word;
  bool in_word = false;
  bool in_quotes = false;
  for (char c : line) {
    if (in_quotes) {
      if (c == '"') {
        in_quotes = false;
      } else {
        word += c;
      }
      continue;
    }
    if (c == '#') break;
    if (c == ' ' || c == '\t' || c == '\r') {
      if (in_word) words->push_back(word);
      word.clear();
      in_word = false;
      continue;
    }
    in_word = true;
    if (c == '"') {
      in_quotes = true;
    } else {
      word += c;
    }
  }
  if (in_quotes) {
    *error = "unterminated quote";
    return false;
  }
  if (in_word) words->push_back(word);
  return true;
}

bool ParseNumber(const std::string& text, uint32_t* value) {
  if (text.empty()) return false;
  int base = 10;
  size_t start = 0;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    start = 2;
  }
  uint64_t result = 0;
  for (size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    result = result * base + digit;
    if (result > UINT32_MAX) return false;
  }
  *value = static_cast<uint32_t>(result);
  return true;
}

// What the parser needs to remember beyond the layout itself.
struct ParseContext {
  std::map<std::string, int> statement_line;  // geometry statement -> line
  std::map<int, int> partition_line;          // partition index -> line
};

bool ParseGeometry(const std::vector<std::string>& words, int line, ChipLayout* layout,
                   ParseContext* context, std::string* error) {
  const std::string& keyword = words[0];
  if (words.size() != 2) {
    *error = LinePrefix(line) + keyword + " takes one value";
    return false;
  }
  if (context->statement_line.count(keyword) != 0) {
    *error = LinePrefix(line) + "duplicate " + keyword;
    return false;
  }
  context->statement_line[keyword] = line;
  const std::string& value = words[1];
  if (keyword == "kind") {
    if (value == "nor") {
      layout->kind = ChipKind::kNor;
    } else if (value == "msys") {
      layout->kind = ChipKind::kMSys;
    } else {
      *error = LinePrefix(line) + "unknown kind \"" + value + "\" (nor or msys)";
      return false;
    }
    return true;
  }
  uint32_t number = 0;
  if (!ParseNumber(value, &number)) {
    *error = LinePrefix(line) + "bad number \"" + value + "\"";
    return false;
  }
  if (keyword == "chip-base") {
    layout->chip_base = number;
  } else if (keyword == "chip-size") {
    layout->chip_size = number;
  } else if (keyword == "erase-size") {
    layout->erase_size = number;
  } else {
    layout->fis_device = static_cast<int>(std::min<uint32_t>(number, INT32_MAX));
  }
  return true;
}

bool ParsePartitionOption(const std::string& option, int line, PartitionLayout* partition,
                          std::string* error) {
  const size_t equals = option.find('=');
  const std::string key = option.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : option.substr(equals + 1);
  if (equals == std::string::npos) {
    *error = LinePrefix(line) + "unknown partition option \"" + option + "\"";
    return false;
  }
  if (key == "image") {
    partition->image = value;
  } else if (key == "pattern") {
    if (value != "label" && value != "random") {
      *error = LinePrefix(line) + "unknown pattern \"" + value + "\" (label or random)";
      return false;
    }
    partition->pattern = value;
  } else if (key == "fis") {
    if (value != "no" && value != "yes") {
      *error = LinePrefix(line) + "fis= takes no or yes";
      return false;
    }
    partition->in_fis = value == "yes";
  } else if (key == "data-length" || key == "mem-base" || key == "entry" || key == "fill") {
    uint32_t number = 0;
    if (!ParseNumber(value, &number)) {
      *error = LinePrefix(line) + "bad number \"" + value + "\"";
      return false;
    }
    if (key == "data-length") {
      partition->data_length = number;
      partition->has_data_length = true;
    } else if (key == "mem-base") {
      partition->mem_base = number;
      partition->has_mem_base = true;
    } else if (key == "entry") {
      partition->entry_point = number;
    } else if (number > 0xFF) {
      *error = LinePrefix(line) + "fill= takes a byte (0..255)";
      return false;
    } else {
      partition->fill = static_cast<int>(number);
    }
  } else {
    *error = LinePrefix(line) + "unknown partition option \"" + option + "\"";
    return false;
  }
  return true;
}

bool ParsePartition(const std::vector<std::string>& words, int line, ChipLayout* layout,
                    ParseContext* context, std::string* error) {
  if (words.size() < 5) {
    *error = LinePrefix(line) + "partition needs INDEX NAME BASE SIZE";
    return false;
  }
  PartitionLayout partition;
  uint32_t index = 0;
  if (!ParseNumber(words[1], &index) || index > INT32_MAX) {
    *error = LinePrefix(line) + "bad partition index \"" + words[1] + "\"";
    return false;
  }
  partition.index = static_cast<int>(index);
  if (context->partition_line.count(partition.index) != 0) {
    *error = LinePrefix(line) + "duplicate partition " + words[1];
    return false;
  }
  partition.name = words[2];
  if (partition.name.empty() || partition.name.size() > kMaxNameLength) {
    *error = LinePrefix(line) + "partition name must have 1 to 15 characters";
    return false;
  }
  for (int i = 3; i <= 4; ++i) {
    uint32_t* target = i == 3 ? &partition.base : &partition.size;
    if (!ParseNumber(words[i], target)) {
      *error = LinePrefix(line) + "bad number \"" + words[i] + "\"";
      return false;
    }
  }
  for (size_t i = 5; i < words.size(); ++i) {
    if (!ParsePartitionOption(words[i], line, &partition, error)) return false;
  }
  const int sources = (partition.image.empty() ? 0 : 1) + (partition.fill < 0 ? 0 : 1) +
                      (partition.pattern.empty() ? 0 : 1);
  if (sources > 1) {
    *error = LinePrefix(line) + "image=, fill= and pattern= exclude each other";
    return false;
  }
  if (!partition.has_mem_base) partition.mem_base = partition.base;
  context->partition_line[partition.index] = line;
  layout->partitions.push_back(partition);
  return true;
}

bool CheckGeometry(const ChipLayout& layout, const ParseContext& context, std::string* error) {
  for (const char* required : {"chip-size", "erase-size"}) {
    if (context.statement_line.count(required) == 0) {
      *error = std::string("missing ") + required;
      return false;
    }
  }
  const int erase_line = context.statement_line.at("erase-size");
  const int size_line = context.statement_line.at("chip-size");
  if (layout.erase_size == 0) {
    *error = LinePrefix(erase_line) + "erase-size must not be 0";
    return false;
  }
  if (layout.chip_size == 0 || layout.chip_size % layout.erase_size != 0) {
    *error = LinePrefix(size_line) + "chip-size is not a whole number of erase blocks";
    return false;
  }
  if (uint64_t{layout.chip_base} + layout.chip_size > uint64_t{1} << 32) {
    *error = LinePrefix(size_line) + "the chip runs past the end of the address space";
    return false;
  }
  return true;
}

bool CheckPartitions(ChipLayout* layout, const ParseContext& context, std::string* error) {
  const uint64_t chip_end = uint64_t{layout->chip_base} + layout->chip_size;
  for (const PartitionLayout& partition : layout->partitions) {
    const std::string where = LinePrefix(context.partition_line.at(partition.index)) +
                              "partition " + std::to_string(partition.index);
    if (partition.base < layout->chip_base ||
        uint64_t{partition.base} + partition.size > chip_end) {
      *error = where + " lies outside the chip";
      return false;
    }
    if ((partition.base - layout->chip_base) % layout->erase_size != 0 ||
        partition.size % layout->erase_size != 0) {
      *error = where + " is not aligned to erase blocks";
      return false;
    }
  }
  const auto fis_line = context.statement_line.find("fis-device");
  if (fis_line != context.statement_line.end()) {
    if (layout->Find(layout->fis_device) == nullptr) {
      *error = LinePrefix(fis_line->second) + "fis-device " + std::to_string(layout->fis_device) +
               " names no partition";
      return false;
    }
  } else if (layout->kind == ChipKind::kNor) {
    for (const PartitionLayout& partition : layout->partitions) {
      if (partition.name == kFisDirectoryName) {
        layout->fis_device = partition.index;
        break;
      }
    }
  }
  return true;
}

// Writes a sibling temporary file and renames it over `path`, so a reader
// sees either the old or the new content.
bool ReplaceFile(const std::string& path, const void* data, size_t length, std::string* error) {
  const std::string temporary = path + ".tmp";
  UniqueFd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (fd.get() < 0) {
    *error = temporary + ": " + strerror(errno);
    return false;
  }
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    const ssize_t written = write(fd.get(), bytes + done, length - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      *error = temporary + ": " + strerror(errno);
      unlink(temporary.c_str());
      return false;
    }
    done += static_cast<size_t>(written);
  }
  if (fd.Close() != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    *error = path + ": " + strerror(errno);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool LoadLocks(const std::string& path, uint32_t blocks, std::vector<uint8_t>* locked,
               std::string* error) {
  std::vector<uint8_t> text;
  if (!ReadWholeFile(path, &text, error)) return false;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (text.size() != blocks) {
    *error = path + ": " + std::to_string(text.size()) + " lock bits for " +
             std::to_string(blocks) + " erase blocks";
    return false;
  }
  locked->assign(blocks, 0);
  for (uint32_t i = 0; i < blocks; ++i) {
    if (text[i] != '0' && text[i] != '1') {
      *error = path + ": lock bit " + std::to_string(i) + " is neither '0' nor '1'";
      return false;
    }
    (*locked)[i] = text[i] == '1' ? 1 : 0;
  }
  return true;
}

std::string QuoteName(const std::string& name) {
  if (name.find_first_of(" \t#") == std::string::npos) return name;
  return "\"" + name + "\"";
}

}  // namespace

std::string Hex32(uint32_t value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* data, std::string* error) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  data->clear();
  uint8_t buffer[65536];
  for (;;) {
    const ssize_t got = read(fd.get(), buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = path + ": " + strerror(errno);
      return false;
    }
    if (got == 0) return true;
    data->insert(data->end(), buffer, buffer + got);
  }
}

const PartitionLayout* ChipLayout::Find(int index) const {
  for (const PartitionLayout& partition : partitions) {
    if (partition.index == index) return &partition;
  }
  return nullptr;
}

PartitionLayout* ChipLayout::Find(int index) {
  for (PartitionLayout& partition : partitions) {
    if (partition.index == index) return &partition;
  }
  return nullptr;
}

bool ParseLayout(const std::string& text, ChipLayout* layout, std::string* error) {
  ChipLayout result;
  ParseContext context;
  std::vector<std::string> words;
  int line_number = 0;
  size_t position = 0;
  while (position < text.size()) {
    size_t end = text.find('\n', position);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(position, end - position);
    position = end + 1;
    ++line_number;
    std::string split_error;
    if (!SplitWords(line, &words, &split_error)) {
      *error = LinePrefix(line_number) + split_error;
      return false;
    }
    if (words.empty()) continue;
    const std::string& keyword = words[0];
    bool ok;
    if (keyword == "kind" || keyword == "chip-base" || keyword == "chip-size" ||
        keyword == "erase-size" || keyword == "fis-device") {
      ok = ParseGeometry(words, line_number, &result, &context, error);
    } else if (keyword == "partition") {
      ok = ParsePartition(words, line_number, &result, &context, error);
    } else {
      *error = LinePrefix(line_number) + "unknown statement \"" + keyword + "\"";
      ok = false;
    }
    if (!ok) return false;
  }
  if (!CheckGeometry(result, context, error)) return false;
  std::sort(result.partitions.begin(), result.partitions.end(),
            [](const PartitionLayout& a, const PartitionLayout& b) { return a.index < b.index; });
  if (!CheckPartitions(&result, context, error)) return false;
  *layout = std::move(result);
  return true;
}

std::string FormatLayout(const ChipLayout& layout) {
  std::string text;
  text += layout.kind == ChipKind::kMSys ? "kind msys\n" : "kind nor\n";
  text += "chip-base " + Hex32(layout.chip_base) + "\n";
  text += "chip-size " + Hex32(layout.chip_size) + "\n";
  text += "erase-size " + Hex32(layout.erase_size) + "\n";
  if (layout.fis_device >= 0) text += "fis-device " + std::to_string(layout.fis_device) + "\n";
  for (const PartitionLayout& partition : layout.partitions) {
    text += "partition " + std::to_string(partition.index) + " " + QuoteName(partition.name) + " " +
            Hex32(partition.base) + " " + Hex32(partition.size);
    if (partition.has_data_length || partition.data_length != 0) {
      text += " data-length=" + Hex32(partition.data_length);
    }
    if (partition.has_mem_base || partition.mem_base != partition.base) {
      text += " mem-base=" + Hex32(partition.mem_base);
    }
    if (partition.entry_point != 0) text += " entry=" + Hex32(partition.entry_point);
    if (!partition.in_fis) text += " fis=no";
    text += "\n";
  }
  return text;
}

uint32_t ReadBigEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 |
         uint32_t{bytes[3]};
}

void WriteBigEndian32(uint32_t value, uint8_t* bytes) {
  bytes[0] = static_cast<uint8_t>(value >> 24);
  bytes[1] = static_cast<uint8_t>(value >> 16);
  bytes[2] = static_cast<uint8_t>(value >> 8);
  bytes[3] = static_cast<uint8_t>(value);
}

void EncodeFisRecord(const FisRecord& record, uint8_t out[kFisRecordSize]) {
  memset(out, 0, kFisRecordSize);
  memcpy(out, record.name.data(), std::min(record.name.size(), kMaxNameLength));
  WriteBigEndian32(record.flash_base, out + kFisFlashBase);
  WriteBigEndian32(record.mem_base, out + kFisMemBase);
  WriteBigEndian32(record.size, out + kFisSize);
  WriteBigEndian32(record.entry_point, out + kFisEntryPoint);
  WriteBigEndian32(record.data_length, out + kFisDataLength);
  WriteBigEndian32(record.desc_cksum, out + kFisDescCksum);
  WriteBigEndian32(record.file_cksum, out + kFisFileCksum);
}

FisRecord DecodeFisRecord(const uint8_t in[kFisRecordSize]) {
  FisRecord record;
  const void* nul = memchr(in, 0, kFisNameSize);
  const size_t name_length =
      nul == nullptr ? kFisNameSize : static_cast<size_t>(static_cast<const uint8_t*>(nul) - in);
  record.name.assign(reinterpret_cast<const char*>(in), name_length);
  record.flash_base = ReadBigEndian32(in + kFisFlashBase);
  record.mem_base = ReadBigEndian32(in + kFisMemBase);
  record.size = ReadBigEndian32(in + kFisSize);
  record.entry_point = ReadBigEndian32(in + kFisEntryPoint);
  record.data_length = ReadBigEndian32(in + kFisDataLength);
  record.desc_cksum = ReadBigEndian32(in + kFisDescCksum);
  record.file_cksum = ReadBigEndian32(in + kFisFileCksum);
  return record;
}

std::vector<FisRecord> DecodeFisDirectory(const std::vector<uint8_t>& directory, bool* terminated) {
  std::vector<FisRecord> records;
  *terminated = false;
  for (size_t offset = 0; offset + kFisRecordSize <= directory.size(); offset += kFisRecordSize) {
    if (directory[offset] == 0xFF) {
      *terminated = true;
      break;
    }
    records.push_back(DecodeFisRecord(directory.data() + offset));
  }
  return records;
}

bool LoadState(const std::string& dir, ChipState* state, std::string* error) {
  std::vector<uint8_t> layout_text;
  if (!ReadWholeFile(dir + "/layout", &layout_text, error)) return false;
  ChipState loaded;
  loaded.dir = dir;
  std::string parse_error;
  if (!ParseLayout(std::string(layout_text.begin(), layout_text.end()), &loaded.layout,
                   &parse_error)) {
    *error = dir + "/layout: " + parse_error;
    return false;
  }
  const std::string image_path = dir + "/chip.img";
  if (!ReadWholeFile(image_path, &loaded.image, error)) return false;
  if (loaded.image.size() != loaded.layout.chip_size) {
    *error = image_path + " holds " + std::to_string(loaded.image.size()) +
             " bytes, the layout says " + std::to_string(loaded.layout.chip_size);
    return false;
  }
  if (!LoadLocks(dir + "/locks", loaded.layout.BlockCount(), &loaded.locked, error)) return false;
  *state = std::move(loaded);
  return true;
}

bool SaveLayout(const std::string& dir, const ChipLayout& layout, std::string* error) {
  const std::string text = FormatLayout(layout);
  return ReplaceFile(dir + "/layout", text.data(), text.size(), error);
}

bool SaveState(const ChipState& state, std::string* error) {
  if (state.image.size() != state.layout.chip_size ||
      state.locked.size() != state.layout.BlockCount()) {
    *error = state.dir + ": chip image or lock bits do not match the layout's geometry";
    return false;
  }
  std::string locks(state.locked.size(), '0');
  for (size_t i = 0; i < state.locked.size(); ++i) {
    if (state.locked[i] != 0) locks[i] = '1';
  }
  return SaveLayout(state.dir, state.layout, error) &&
         ReplaceFile(state.dir + "/chip.img", state.image.data(), state.image.size(), error) &&
         ReplaceFile(state.dir + "/locks", locks.data(), locks.size(), error);
}

}  // namespace flashsim
