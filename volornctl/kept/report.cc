#include "volornctl/kept/report.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "volornctl/kept/history.h"
#include "volornctl/kept/key_meaning.h"
#include "volornctl/kept/report_chart.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/kept/status.h"
#include "volornctl/replace_file.h"
#include "volornctl/text/html_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

constexpr const char* kStyle = R"css(
:root{color-scheme:light dark;--ink:#1b1f24;--paper:#fff;--soft:#57606a;--rule:#d0d7de;--line:#0b62c4;--good:#0f6b2f;--bad:#b3261e}
@media(prefers-color-scheme:dark){:root{--ink:#e6e9ee;--paper:#14171c;--soft:#a2abb8;--rule:#363d47;--line:#6cb6ff;--good:#6fd48b;--bad:#ff9a8f}}
*{box-sizing:border-box}
body{margin:0;font:16px/1.45 system-ui,sans-serif;color:var(--ink);background:var(--paper)}
main{max-width:72rem;margin:0 auto;padding:1rem}
h1{font-size:1.5rem;margin:0 0 .5rem}h2{font-size:1.2rem;margin:2rem 0 .5rem}h3{font-size:1rem;margin:0}
p{margin:.25rem 0}.verdict{border-left:.4rem solid var(--bad);padding:.25rem .75rem;font-size:1.1rem}
.verdict strong{color:var(--bad)}.verdict.fine{border-color:var(--good)}.verdict.fine strong{color:var(--good)}
.soft,figcaption p,.x,.y{color:var(--soft);font-size:.85rem}
table{border-collapse:collapse;width:100%;max-width:36rem;font-variant-numeric:tabular-nums}
th,td{padding:.2rem .5rem .2rem 0;border-bottom:1px solid var(--rule);text-align:left;vertical-align:top}th{overflow-wrap:anywhere}
details table{font-size:.85rem}details table td,details table th+th{text-align:right}
.charts{display:grid;grid-template-columns:repeat(auto-fill,minmax(min(100%,30rem),1fr));gap:1.5rem}
figure{margin:0;min-width:0;break-inside:avoid}summary{font-size:.85rem;cursor:pointer;padding:.25rem 0}
.plot{display:grid;grid-template-columns:4.6rem 1fr;grid-template-rows:7rem 1.2rem;gap:.2rem .5rem}
.y{display:flex;flex-direction:column;justify-content:space-between;text-align:right;overflow-wrap:anywhere;line-height:1.1}
.plot svg{width:100%;height:100%;overflow:visible}
.x{grid-column:2;position:relative}.x span{position:absolute;white-space:nowrap}
path{fill:none;vector-effect:non-scaling-stroke}.grid{stroke:var(--rule)}
.line{stroke:var(--line);stroke-width:1.2;stroke-linecap:round;stroke-linejoin:round}
@page{margin:1.2cm}
@media print{:root{--ink:#000;--paper:#fff;--soft:#444;--rule:#bbb;--line:#004a9f}body{font-size:8.5pt}main{max-width:none;padding:0}
details{display:none}h2{margin:.6rem 0 .2rem;break-after:avoid}
.charts{grid-template-columns:1fr 1fr;gap:.5rem 1.2rem}.plot{grid-template-rows:1.7cm .45cm}th,td{padding:.05rem .4rem .05rem 0}}
)css";

// Nothing of it may be fetched or run, whatever the readings hold.
constexpr const char* kHead = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; img-src data:">
<meta name="viewport" content="width=device-width, initial-scale=1">
<link rel="icon" href="data:,">
)html";

std::string verdictLine(const std::optional<Verdict>& verdict) {
  const bool is_fine = verdict == Verdict::kFine;
  return "<p class=\"verdict" + std::string(is_fine ? " fine" : "") + "\"><strong>" +
         (verdict ? verdictName(*verdict) : "unknown") + "</strong>: " +
         htmlText(verdict ? verdictMeaning(*verdict) : "how the snapshots go on cannot be told") + "</p>\n";
}

std::string newestTable(const StoredSnapshot& snapshot) {
  // Of keys that this program does not know; a damaged file may hold any number of any length.
  constexpr std::size_t kMostOthers = 40;
  constexpr std::size_t kLongestName = 80;
  std::vector<std::pair<std::string, std::string>> rows;
  std::size_t others = 0;
  for (const auto& [key, value] : snapshot.metrics) {
    const KeyMeaning* meaning = meaningOf(key);
    if (!meaning && ++others > kMostOthers) continue;
    rows.emplace_back(meaning ? meaning->label : withoutPrefix(key).substr(0, kLongestName),
                      snapshot.isKnown(key) ? figureText(key, value) : kNotKnown);
  }
  if (others > kMostOthers) rows.emplace_back("Others", std::to_string(others - kMostOthers));
  return htmlRows(rows);
}

std::string charts(const std::vector<KeyPoints>& keys, const Days& days) {
  constexpr std::array kGroups = {std::pair{"battery", "Battery"}, std::pair{"system", "System"},
                                  std::pair{"times", "Times of day"}};
  std::string html;
  for (const auto& [group, title] : kGroups) {
    std::string figures;
    for (const KeyMeaning& meaning : keyMeanings()) {
      const auto key = std::ranges::find(keys, meaning.key, &KeyPoints::key);
      if (meaning.group != group || key == keys.end() || key->points.empty()) continue;
      figures += chartFigure(meaning, *key, days);
    }
    if (!figures.empty()) {
      html += "<h2>" + std::string(title) + "</h2>\n<div class=\"charts\">\n" + figures + "</div>\n";
    }
  }
  return html;
}

}  // namespace

std::string reportPage(const History& history, const std::optional<Verdict>& verdict, const Date& now) {
  const std::string made_at = utcTime(now);
  const StoredSnapshot& newest = history.back();
  const std::string count =
      std::to_string(history.size()) + (history.size() == 1 ? " snapshot" : " snapshots");
  std::string html = std::string(kHead) + "<title>Device report of " + made_at + "</title>\n<style>" +
                     kStyle + "</style>\n</head>\n<body>\n<main>\n<h1>Device report</h1>\n" +
                     verdictLine(verdict) + "<p>" + count + ", the newest of " + utcTime(newest.taken_at) +
                     ", " + distance(newest.taken_at, now) + ".</p>\n<p class=\"soft\">Made at " + made_at +
                     " by volornctl " VOLORN_VERSION ". All days are UTC days.</p>\n";
  const std::optional<Days> days = daysOf(history, now);
  const std::vector<KeyPoints> keys = days ? pointsOf(history, *days) : std::vector<KeyPoints>();
  if (days) html += "<h2>Over all days</h2>\n" + htmlRows(figuresOf(history, *days, keys));
  html += "<h2>The newest snapshot</h2>\n" + newestTable(newest);
  if (days) html += charts(keys, *days);
  return html + "</main>\n</body>\n</html>\n";
}

CLI::App* ReportCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("report", "Write a page about all of it, to be handed on");
  command
      ->add_option("--output", file_,
                   "Replace this file by the page, at once and as a whole; - is the output")
      ->type_name("FILE")
      ->required();
  return command;
}

void ReportCommand::run(const Surroundings& surroundings) {
  const History history = readHistory(stateDirectory(surroundings), {});
  const std::string page = reportPage(history, readStatus(surroundings).verdict, surroundings.moment.now);
  if (file_ == "-") {
    surroundings.output.write(page);
  } else {
    replaceFile(file_, page);
  }
}

}  // namespace volorn::ctl
