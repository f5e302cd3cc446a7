#include "sim/campaign_report.h"

#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <vector>

namespace campaign {

namespace {

// ---------------------------------------------------------------- shared

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  return text;
}

std::string Percent(size_t part, size_t whole) {
  return Format("%.1f%%", whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / whole);
}

std::string Join(const std::vector<std::string>& items, const std::string& separator) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : separator) + item;
  return text;
}

std::string DeviceLabel(const flashsim::ChipLayout& layout, int device) {
  const flashsim::PartitionLayout* partition = layout.Find(device);
  return "mtd" + std::to_string(device) + (partition != nullptr ? " " + partition->name : "");
}

// The stage holding operation `op` (the last one done before a cut); "start"
// before the first.
std::string StageAt(const std::vector<Stage>& stages, size_t op) {
  for (const Stage& stage : stages) {
    if (op >= stage.first && op <= stage.last) return StageName(stage);
  }
  return "start";
}

// A verdict in a few words: "mixed, unbootable: torn rd.gz; overlapping ...".
std::string VerdictText(const Trial& trial) {
  if (!trial.error.empty()) return "not judged: " + trial.error;
  const ChipVerdict& verdict = trial.verdict;
  std::string text = OutcomeName(verdict.outcome);
  if (!verdict.bootable) text += ", unbootable";
  if (!verdict.torn.empty()) text += "; torn " + Join(verdict.torn, ", ");
  if (!verdict.overlapping.empty()) text += "; overlapping " + Join(verdict.overlapping, ", ");
  if (!verdict.terminated) text += "; no end record";
  return text;
}

// Trials in the fault matrix's rows and columns, in the order first seen.
struct Matrix {
  std::vector<std::string> rows;
  std::vector<int> columns;
  std::map<std::pair<std::string, int>, const Trial*> cells;
};

Matrix FaultMatrix(const Result& result) {
  Matrix matrix;
  for (const flashsim::PartitionLayout& partition : result.baseline.old_chip.layout.partitions) {
    matrix.columns.push_back(partition.index);
  }
  for (const Trial& trial : result.trials) {
    if (std::find(matrix.rows.begin(), matrix.rows.end(), trial.fault) == matrix.rows.end()) {
      matrix.rows.push_back(trial.fault);
    }
    matrix.cells[{trial.fault, trial.device}] = &trial;
  }
  return matrix;
}

// One letter per cell: N all new, O all old, M mixed, X mixed and unbootable
// (or unbootable at all), - not reached, ! not judged.
char CellLetter(const Trial& trial) {
  if (!trial.error.empty()) return '!';
  if (!trial.reached) return '-';
  if (!trial.verdict.bootable) return 'X';
  switch (trial.verdict.outcome) {
    case Outcome::kAllNew:
      return 'N';
    case Outcome::kAllOld:
      return 'O';
    case Outcome::kMixed:
      break;
  }
  return 'M';
}

// Consecutive cuts (by cut) with the same verdict, as one row.
struct CutRange {
  const Trial* first;
  const Trial* last;
  size_t count;
};

std::vector<CutRange> CutRanges(const Result& result) {
  std::vector<const Trial*> ordered;
  for (const Trial& trial : result.trials) ordered.push_back(&trial);
  std::sort(ordered.begin(), ordered.end(),
            [](const Trial* a, const Trial* b) { return a->cut < b->cut; });
  std::vector<CutRange> ranges;
  for (const Trial* trial : ordered) {
    if (!ranges.empty() && VerdictText(*ranges.back().last) == VerdictText(*trial)) {
      ranges.back().last = trial;
      ++ranges.back().count;
    } else {
      ranges.push_back({trial, trial, 1});
    }
  }
  return ranges;
}

std::string TallyLine(const Tally& tally) {
  return Format("all new %zu, all old %zu, mixed %zu; unbootable %zu; not judged %zu",
                tally.all_new, tally.all_old, tally.mixed, tally.unbootable, tally.failed);
}

std::string WindowLine(const Result& result) {
  const std::vector<Window> windows = UnbootableWindows(result.trials);
  const size_t total = result.baseline.ops.size();
  if (windows.empty()) return "no cut left a board that would not boot";
  std::vector<std::string> ranges;
  for (const Window& window : windows) {
    ranges.push_back(std::to_string(window.first) + "-" + std::to_string(window.last));
  }
  const size_t inside = WindowOperations(windows);
  return "a power cut after operations " + Join(ranges, ", ") + " leaves a board that would not " +
         "boot: " + std::to_string(inside) + " of " + std::to_string(total) + " operations, " +
         Percent(inside, total) + " of the run";
}

std::string TimingLine(const Result& result) {
  return Format("%.0f s with %d trials at once (load average %.2f before, %.2f after)",
                result.seconds, result.jobs, result.load_before, result.load_after);
}

// ---------------------------------------------------------------- terminal

std::string FaultSummary(const Result& result) {
  const Matrix matrix = FaultMatrix(result);
  const flashsim::ChipLayout& layout = result.baseline.old_chip.layout;
  std::string text =
      "\nfault matrix (N all new, O all old, M mixed, X would not boot, - not "
      "reached: the clean run makes no such request, ! not judged):\n";
  text += Format("  %-20s", "");
  for (const int column : matrix.columns)
    text += Format(" %5s", ("mtd" + std::to_string(column)).c_str());
  text += "\n";
  for (const std::string& row : matrix.rows) {
    text += Format("  %-20s", row.c_str());
    for (const int column : matrix.columns) {
      const auto cell = matrix.cells.find({row, column});
      text += Format(" %5c", cell == matrix.cells.end() ? ' ' : CellLetter(*cell->second));
    }
    text += "\n";
  }
  text += "\nmixed outcomes and faults not judged:\n";
  for (const Trial& trial : result.trials) {
    if (trial.error.empty() && trial.verdict.outcome != Outcome::kMixed) continue;
    text += "  " + trial.fault + " " + DeviceLabel(layout, trial.device) + ": result " +
            std::to_string(trial.status) + ", " + VerdictText(trial) +
            "; FIS check: " + (trial.check_problems.empty() ? "ok" : trial.check_problems.front()) +
            "\n";
  }
  return text;
}

std::string PowerCutSummary(const Result& result) {
  const std::vector<Window> windows = UnbootableWindows(result.trials);
  std::string text = "\n" + WindowLine(result) + "\n";
  for (const auto& [stage, count] : WindowByStage(windows, result.baseline.stages)) {
    text += Format("  %-28s %6zu operations\n", stage.c_str(), count);
  }
  text += "\ncuts (after N operations; consecutive cuts with the same outcome on one line):\n";
  text += Format("  %-11s %5s  %-44s  %s\n", "after", "cuts", "stages", "outcome");
  for (const CutRange& range : CutRanges(result)) {
    const std::string cuts =
        std::to_string(range.first->cut) + "-" + std::to_string(range.last->cut);
    const std::string stage_first = StageAt(result.baseline.stages, range.first->cut);
    const std::string stage_last = StageAt(result.baseline.stages, range.last->cut);
    const std::string stages =
        stage_first == stage_last ? stage_first : stage_first + " .. " + stage_last;
    text += Format("  %-11s %5zu  %-44s  %s\n", cuts.c_str(), range.count, stages.c_str(),
                   VerdictText(*range.first).c_str());
  }
  return text;
}

// ---------------------------------------------------------------- JSON

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += Format("\\u%04x", c);
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string JsonStrings(const std::vector<std::string>& items) {
  std::vector<std::string> quoted;
  for (const std::string& item : items) quoted.push_back(JsonString(item));
  return "[" + Join(quoted, ", ") + "]";
}

std::string JsonLayout(const flashsim::ChipState& chip) {
  std::vector<std::string> partitions;
  for (const flashsim::PartitionLayout& partition : chip.layout.partitions) {
    partitions.push_back(Format("{\"index\": %d, \"name\": %s, \"base\": %u, \"size\": %u}",
                                partition.index, JsonString(partition.name).c_str(), partition.base,
                                partition.size));
  }
  return Format("{\"chip_base\": %u, \"chip_size\": %u, \"partitions\": [", chip.layout.chip_base,
                chip.layout.chip_size) +
         Join(partitions, ", ") + "]}";
}

std::string JsonTrial(const Trial& trial, bool power_cut) {
  const ChipVerdict& verdict = trial.verdict;
  std::vector<std::string> images;
  for (const ImageVerdict& image : verdict.images) {
    images.push_back(JsonString(image.name) + ": " + JsonString(ImageStateName(image.state)));
  }
  std::string json = "    {\"label\": " + JsonString(trial.label) +
                     ", \"faults\": " + JsonStrings(trial.fault_lines);
  if (power_cut) {
    json += ", \"cut\": " + std::to_string(trial.cut);
  } else {
    json += ", \"fault\": " + JsonString(trial.fault) +
            ", \"device\": " + std::to_string(trial.device) +
            ", \"reached\": " + (trial.reached ? "true" : "false");
  }
  if (!trial.error.empty()) return json + ", \"error\": " + JsonString(trial.error) + "}";
  return json + ", \"status\": " + std::to_string(trial.status) +
         ", \"operations\": " + std::to_string(trial.operations) +
         ", \"outcome\": " + JsonString(OutcomeName(verdict.outcome)) +
         ", \"bootable\": " + (verdict.bootable ? "true" : "false") +
         ", \"torn\": " + JsonStrings(verdict.torn) +
         ", \"overlapping\": " + JsonStrings(verdict.overlapping) +
         ", \"directory_terminated\": " + (verdict.terminated ? "true" : "false") +
         ", \"directory_consistent\": " + (trial.check_problems.empty() ? "true" : "false") +
         ", \"check_problems\": " + JsonStrings(trial.check_problems) + ", \"images\": {" +
         Join(images, ", ") + "}}";
}

// ---------------------------------------------------------------- HTML

std::string Html(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

constexpr int kWidth = 1200;      // drawing width of the maps and the timeline
constexpr int kLabelWidth = 150;  // names left of them
constexpr int kLaneHeight = 18;

const char* const kPartitionColours[] = {"#8dd3c7", "#ffffb3", "#bebada", "#fb8072",
                                         "#80b1d3", "#fdb462", "#b3de69", "#fccde5"};

const char* KindColour(const std::string& kind) {
  static const std::map<std::string, const char*> colours = {
      {"backup", "#9e9e9e"},       {"erase", "#e53935"},       {"write", "#1e88e5"},
      {"verify", "#43a047"},       {"FIS rewrite", "#8e24aa"}, {"resize", "#fb8c00"},
      {"re-partition", "#6d4c41"}, {"unlock", "#cfd8dc"},      {"lock", "#90a4ae"},
      {"read", "#bdbdbd"},         {"table", "#bdbdbd"},       {"open", "#eeeeee"}};
  const auto found = colours.find(kind);
  return found != colours.end() ? found->second : "#eeeeee";
}

const char* OutcomeColour(const Trial& trial) {
  switch (CellLetter(trial)) {
    case 'N':
      return "#4caf50";
    case 'O':
      return "#42a5f5";
    case 'M':
      return "#ffb300";
    case 'X':
      return "#e53935";
    case '-':
      return "#e0e0e0";
  }
  return "#212121";
}

std::string Rect(double x, double y, double width, double height, const char* fill,
                 const std::string& title, const char* extra = "") {
  return Format("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\" %s>", x, y,
                std::max(width, 1.0), height, fill, extra) +
         "<title>" + Html(title) + "</title></rect>\n";
}

std::string Text(double x, double y, const std::string& text, const char* extra = "") {
  return Format("<text x=\"%.1f\" y=\"%.1f\" %s>", x, y, extra) + Html(text) + "</text>\n";
}

std::string Svg(int height, const std::string& body) {
  return Format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
             "font-family=\"sans-serif\" font-size=\"11\">\n",
             kLabelWidth + kWidth + 10, height) +
         body + "</svg>\n";
}

std::string FlashMapBar(const flashsim::ChipState& chip, double y, const std::string& label) {
  const flashsim::ChipLayout& layout = chip.layout;
  std::string svg = Text(0, y + 22, label);
  svg += Rect(kLabelWidth, y, kWidth, 34, "#fafafa", "erased or unused", "stroke=\"#999\"");
  for (const flashsim::PartitionLayout& partition : layout.partitions) {
    const double x = kLabelWidth + static_cast<double>(partition.base - layout.chip_base) /
                                       layout.chip_size * kWidth;
    const double width = static_cast<double>(partition.size) / layout.chip_size * kWidth;
    const std::string title = Format("mtd%d %s: 0x%08X, 0x%08X bytes", partition.index,
                                     partition.name.c_str(), partition.base, partition.size);
    svg += Rect(x, y, width, 34, kPartitionColours[partition.index % 8], title,
                "stroke=\"#333\" fill-opacity=\"0.85\"");
    if (width > 40) svg += Text(x + 3, y + 14, partition.name);
    if (width > 70) svg += Text(x + 3, y + 28, Format("0x%08X", partition.base), "fill=\"#444\"");
  }
  return svg;
}

std::string FlashMaps(const Result& result) {
  const flashsim::ChipLayout& layout = result.baseline.old_chip.layout;
  std::string svg = FlashMapBar(result.baseline.old_chip, 10, "before");
  svg += FlashMapBar(result.baseline.new_chip, 56, "after the clean run");
  svg += Text(kLabelWidth, 106, Format("0x%08X", layout.chip_base));
  const uint64_t chip_end = uint64_t{layout.chip_base} + layout.chip_size;
  svg += Text(kLabelWidth + kWidth, 106,
              Format("0x%08llX", static_cast<unsigned long long>(chip_end)), "text-anchor=\"end\"");
  return Svg(112, svg);
}

// Lanes: one per partition, in the order the run first touches them.
std::vector<std::string> Lanes(const std::vector<Stage>& stages) {
  std::vector<std::string> lanes;
  for (const Stage& stage : stages) {
    if (std::find(lanes.begin(), lanes.end(), stage.partition) == lanes.end()) {
      lanes.push_back(stage.partition);
    }
  }
  return lanes;
}

std::string Timeline(const Result& result, bool power_cut) {
  const std::vector<Stage>& stages = result.baseline.stages;
  const double total = std::max<double>(1, result.baseline.ops.size());
  const auto x_of = [total](double op) { return kLabelWidth + op / total * kWidth; };
  const std::vector<std::string> lanes = Lanes(stages);
  const double lanes_height = lanes.size() * kLaneHeight;
  std::string svg;
  for (size_t lane = 0; lane < lanes.size(); ++lane) {
    svg += Text(0, lane * kLaneHeight + 13, lanes[lane]);
    svg +=
        Rect(kLabelWidth, lane * kLaneHeight + 1, kWidth, kLaneHeight - 2, "#f5f5f5", lanes[lane]);
  }
  for (const Stage& stage : stages) {
    const size_t lane = std::find(lanes.begin(), lanes.end(), stage.partition) - lanes.begin();
    svg += Rect(x_of(stage.first - 1), lane * kLaneHeight + 1,
                std::max(x_of(stage.last) - x_of(stage.first - 1), 2.0), kLaneHeight - 2,
                KindColour(stage.kind),
                StageName(stage) + Format(": operations %zu-%zu", stage.first, stage.last));
  }
  double y = lanes_height + 4;
  if (power_cut) {
    for (const Window& window : UnbootableWindows(result.trials)) {
      svg += Rect(x_of(window.first), 0, x_of(window.last + 1) - x_of(window.first),
                  lanes_height + 26, "#e53935",
                  Format("would not boot after a power cut after operations %zu-%zu", window.first,
                         window.last),
                  "fill-opacity=\"0.18\" stroke=\"#e53935\"");
    }
    svg += Text(0, y + 14, "power cuts");
    for (const Trial& trial : result.trials) {
      svg += Format("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3.5\" fill=\"%s\">", x_of(trial.cut),
                    y + 10, OutcomeColour(trial)) +
             "<title>" + Html(trial.label + ": " + VerdictText(trial)) + "</title></circle>\n";
    }
    y += 26;
  }
  svg += Text(kLabelWidth, y + 14, "operation 0");
  svg += Text(kLabelWidth + kWidth, y + 14, Format("%.0f", total), "text-anchor=\"end\"");
  double legend_x = kLabelWidth + 120;
  for (const char* kind : {"backup", "unlock", "resize", "erase", "write", "verify", "FIS rewrite",
                           "re-partition", "read"}) {
    svg += Rect(legend_x, y + 5, 12, 12, KindColour(kind), kind);
    svg += Text(legend_x + 16, y + 15, kind);
    legend_x += 100;
  }
  return Svg(static_cast<int>(y + 24), svg);
}

std::string Legend() {
  return "<p class=\"legend\"><span style=\"background:#4caf50\"></span>all new "
         "<span style=\"background:#42a5f5\"></span>all old "
         "<span style=\"background:#ffb300\"></span>mixed, boots "
         "<span style=\"background:#e53935\"></span>would not boot "
         "<span style=\"background:#e0e0e0\"></span>not reached (the clean run makes no such "
         "request) <span style=\"background:#212121\"></span>not judged</p>\n";
}

// The word in a fault matrix cell.
const char* CellWord(const Trial& trial) {
  switch (CellLetter(trial)) {
    case 'N':
      return "new";
    case 'O':
      return "old";
    case 'M':
      return "mixed";
    case 'X':
      return "no boot";
    case '-':
      return "\u2013";
  }
  return "?";
}

std::string MatrixSvg(const Result& result) {
  const Matrix matrix = FaultMatrix(result);
  const flashsim::ChipLayout& layout = result.baseline.old_chip.layout;
  const int cell_width = 90;
  const int cell_height = 22;
  const int top = 34;  // below the two-line column heads: mtdN, then its name
  std::string svg;
  for (size_t c = 0; c < matrix.columns.size(); ++c) {
    const double x = kLabelWidth + c * cell_width + cell_width / 2.0;
    const flashsim::PartitionLayout* partition = layout.Find(matrix.columns[c]);
    svg += Text(x, 12, "mtd" + std::to_string(matrix.columns[c]), "text-anchor=\"middle\"");
    if (partition != nullptr) svg += Text(x, 26, partition->name, "text-anchor=\"middle\"");
  }
  for (size_t r = 0; r < matrix.rows.size(); ++r) {
    const double y = top + r * cell_height;
    svg += Text(0, y + 15, matrix.rows[r]);
    for (size_t c = 0; c < matrix.columns.size(); ++c) {
      const auto cell = matrix.cells.find({matrix.rows[r], matrix.columns[c]});
      if (cell == matrix.cells.end()) continue;
      const Trial& trial = *cell->second;
      const double x = kLabelWidth + c * cell_width;
      svg += Rect(x + 1, y + 1, cell_width - 2, cell_height - 2, OutcomeColour(trial),
                  trial.fault_lines.front() + ": result " + std::to_string(trial.status) + ", " +
                      VerdictText(trial) + "; FIS check: " +
                      (trial.check_problems.empty() ? "ok" : Join(trial.check_problems, "; ")));
      svg += Text(x + cell_width / 2.0, y + 15, CellWord(trial),
                  "text-anchor=\"middle\" fill=\"#222\"");
    }
  }
  return Svg(static_cast<int>(top + 4 + matrix.rows.size() * cell_height), svg);
}

const char kStyle[] =
    "body{font-family:sans-serif;margin:20px;color:#222}h1{font-size:20px}h2{font-size:16px;"
    "margin-top:28px}table{border-collapse:collapse;font-size:12px}td,th{border:1px solid #ccc;"
    "padding:3px 6px;text-align:left}.legend span{display:inline-block;width:12px;height:12px;"
    "margin:0 4px 0 12px;vertical-align:middle}.big{font-size:15px}";

std::string HtmlTable(const std::vector<std::string>& heads,
                      const std::vector<std::vector<std::string>>& rows) {
  std::string html = "<table><tr>";
  for (const std::string& head : heads) html += "<th>" + Html(head) + "</th>";
  html += "</tr>\n";
  for (const std::vector<std::string>& row : rows) {
    html += "<tr>";
    for (const std::string& cell : row) html += "<td>" + Html(cell) + "</td>";
    html += "</tr>\n";
  }
  return html + "</table>\n";
}

std::string PowerCutSection(const Result& result) {
  const std::vector<Window> windows = UnbootableWindows(result.trials);
  std::string html =
      "<h2>Unbootable window</h2><p class=\"big\">" + Html(WindowLine(result)) + "</p>\n";
  std::vector<std::vector<std::string>> by_stage;
  for (const auto& [stage, count] : WindowByStage(windows, result.baseline.stages)) {
    by_stage.push_back({stage, std::to_string(count)});
  }
  if (!by_stage.empty()) html += HtmlTable({"stage", "operations in the window"}, by_stage);
  std::vector<std::vector<std::string>> rows;
  for (const CutRange& range : CutRanges(result)) {
    rows.push_back(
        {std::to_string(range.first->cut) + "-" + std::to_string(range.last->cut),
         std::to_string(range.count), StageAt(result.baseline.stages, range.first->cut),
         StageAt(result.baseline.stages, range.last->cut), VerdictText(*range.first),
         range.first->check_problems.empty() ? "ok" : Join(range.first->check_problems, "; ")});
  }
  html += "<h2>Power cuts</h2>\n";
  return html + HtmlTable({"after operations", "cuts", "first stage", "last stage", "outcome",
                           "FIS check (first cut)"},
                          rows);
}

std::string FaultSection(const Result& result) {
  std::string html = "<h2>Fault matrix</h2>\n" + Legend() + MatrixSvg(result);
  std::vector<std::vector<std::string>> rows;
  for (const Trial& trial : result.trials) {
    if (trial.error.empty() && trial.verdict.outcome != Outcome::kMixed) continue;
    rows.push_back({trial.fault_lines.front(), std::to_string(trial.status), VerdictText(trial),
                    trial.check_problems.empty() ? "ok" : Join(trial.check_problems, "; ")});
  }
  html += "<h2>Mixed outcomes</h2>\n";
  return html + HtmlTable({"fault", "result", "outcome", "FIS check"}, rows);
}

}  // namespace

std::string SummaryText(const Setup& setup, const Result& result) {
  const bool power_cut = setup.kind == Kind::kPowerCut;
  const Tally tally = CountOutcomes(result.trials);
  std::string text =
      std::string(power_cut ? "power-cut sweep" : "fault campaign") + " on " + setup.title + "\n";
  text += Format("  clean run: %zu flash operations\n", result.baseline.ops.size());
  if (power_cut) {
    text += Format(
        "  %zu cuts (%zu spread evenly, the rest around erases, writes and FIS "
        "updates)\n",
        result.trials.size(), std::min(setup.points, result.baseline.ops.size()));
  } else {
    text +=
        Format("  %zu faults, %zu run, %zu not reached (counted as the clean run)\n",
               result.trials.size(), result.trials.size() - tally.not_reached, tally.not_reached);
  }
  text += "  " + TallyLine(tally) + "\n";
  text += power_cut ? PowerCutSummary(result) : FaultSummary(result);
  text += "\ntime: " + TimingLine(result) + "\n";
  return text;
}

std::string CampaignJson(const Setup& setup, const Result& result) {
  const bool power_cut = setup.kind == Kind::kPowerCut;
  const Tally tally = CountOutcomes(result.trials);
  std::string json = "{\n  \"campaign\": " + JsonString(power_cut ? "power-cut" : "faults") +
                     ",\n  \"title\": " + JsonString(setup.title) +
                     ",\n  \"operations\": " + std::to_string(result.baseline.ops.size()) +
                     ",\n  \"flash_before\": " + JsonLayout(result.baseline.old_chip) +
                     ",\n  \"flash_after\": " + JsonLayout(result.baseline.new_chip) +
                     ",\n  \"stages\": [";
  std::vector<std::string> stages;
  for (const Stage& stage : result.baseline.stages) {
    stages.push_back(Format("{\"partition\": %s, \"kind\": %s, \"first\": %zu, \"last\": %zu}",
                            JsonString(stage.partition).c_str(), JsonString(stage.kind).c_str(),
                            stage.first, stage.last));
  }
  json += Join(stages, ",\n    ") + "],\n";
  json += Format(
      "  \"summary\": {\"trials\": %zu, \"all_new\": %zu, \"all_old\": %zu, "
      "\"mixed\": %zu, \"unbootable\": %zu, \"not_reached\": %zu, \"not_judged\": %zu}",
      result.trials.size(), tally.all_new, tally.all_old, tally.mixed, tally.unbootable,
      tally.not_reached, tally.failed);
  if (power_cut) {
    const std::vector<Window> windows = UnbootableWindows(result.trials);
    std::vector<std::string> items;
    for (const Window& window : windows) {
      items.push_back(Format("{\"first\": %zu, \"last\": %zu}", window.first, window.last));
    }
    json += ",\n  \"unbootable_windows\": [" + Join(items, ", ") + "]";
    json += Format(",\n  \"unbootable_operations\": %zu", WindowOperations(windows));
    items.clear();
    for (const auto& [stage, count] : WindowByStage(windows, result.baseline.stages)) {
      items.push_back(JsonString(stage) + ": " + std::to_string(count));
    }
    json += ",\n  \"unbootable_by_stage\": {" + Join(items, ", ") + "}";
  }
  json += Format(
      ",\n  \"timing\": {\"seconds\": %.1f, \"jobs\": %d, \"load_before\": %.2f, "
      "\"load_after\": %.2f}",
      result.seconds, result.jobs, result.load_before, result.load_after);
  std::vector<std::string> trials;
  for (const Trial& trial : result.trials) trials.push_back(JsonTrial(trial, power_cut));
  return json + ",\n  \"trials\": [\n" + Join(trials, ",\n") + "\n  ]\n}\n";
}

std::string CampaignHtml(const Setup& setup, const Result& result) {
  const bool power_cut = setup.kind == Kind::kPowerCut;
  const std::string title =
      std::string(power_cut ? "Power-cut sweep" : "Fault campaign") + " on " + setup.title;
  const Tally tally = CountOutcomes(result.trials);
  std::string html = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + Html(title) +
                     "</title><style>" + kStyle + "</style></head><body>\n<h1>" + Html(title) +
                     "</h1>\n";
  html += HtmlTable({"trials", "all new", "all old", "mixed", "would not boot", "not reached",
                     "not judged", "flash operations (clean run)"},
                    {{std::to_string(result.trials.size()), std::to_string(tally.all_new),
                      std::to_string(tally.all_old), std::to_string(tally.mixed),
                      std::to_string(tally.unbootable), std::to_string(tally.not_reached),
                      std::to_string(tally.failed), std::to_string(result.baseline.ops.size())}});
  html += "<h2>Flash map</h2>\n" + FlashMaps(result);
  html += "<h2>Flash operations of the clean run</h2>\n";
  if (power_cut) html += Legend();
  html += Timeline(result, power_cut);
  html += power_cut ? PowerCutSection(result) : FaultSection(result);
  html += "<p>" + Html(TimingLine(result)) + "</p>\n</body></html>\n";
  return html;
}

}  // namespace campaign
