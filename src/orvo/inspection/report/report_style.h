// How a report looks: on a screen, light and dark, narrow and wide, and on paper.
#pragma once

namespace orvo::inspection {

/// CSS. Colours are told apart without seeing red and green, and text has a contrast of at least
/// 4.5 to 1 against what it stands on.
inline constexpr const char kReportStyle[] = R"css(:root {
  color-scheme: light dark;
  --paper: #ffffff; --ink: #1b1f24; --muted: #57606a; --line: #d5dbe1; --panel: #f5f7f9;
  --data: #0b5fa5; --band: #d8eaf8; --log: #f3f0e6; --bad: #a33200; --good: #00604a; --wrap: #6a3fa0;
  --pass-paper: #00604a; --fail-paper: #a33200;
}
@media (prefers-color-scheme: dark) {
  :root {
    --paper: #14181c; --ink: #e8eaed; --muted: #a9b3bd; --line: #39424b; --panel: #1d2329;
    --data: #6db8f5; --band: #1c3a52; --log: #23221b; --bad: #ffa07a; --good: #5fd3b3; --wrap: #c9a7f5;
  }
}
@media print {
  :root {
    color-scheme: light;
    --paper: #ffffff; --ink: #000000; --muted: #444444; --line: #cccccc; --panel: #f5f7f9;
    --data: #0b5fa5; --band: #d8eaf8; --log: #f3f0e6; --bad: #a33200; --good: #00604a; --wrap: #6a3fa0;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--paper); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", "Liberation Sans", Arial, sans-serif;
  font-variant-numeric: tabular-nums; }
main { max-width: 1180px; margin: 0 auto; padding: 20px 24px 40px; }
h1 { font-size: 20px; margin: 0 0 12px; }
h2 { font-size: 18px; margin: 30px 0 8px; }
h3 { font-size: 15px; margin: 18px 0 0; }
p { margin: 6px 0; max-width: 75em; }
.channel p { max-width: none; }
ul { margin: 4px 0; padding-left: 22px; max-width: 75em; }
a { color: var(--data); }
.verdict { display: inline-block; margin: 0 0 6px; padding: 4px 26px; border-radius: 8px;
  font-size: 46px; line-height: 1.25; font-weight: 700; color: #ffffff; }
.verdict.pass { background: var(--pass-paper); }
.verdict.fail { background: var(--fail-paper); }
.good { color: var(--good); font-weight: 600; }
.bad { color: var(--bad); font-weight: 700; }
.hint, footer { color: var(--muted); font-size: 13px; }
footer { margin-top: 36px; border-top: 1px solid var(--line); padding-top: 8px; }
.none { border-left: 4px solid var(--bad); background: var(--panel); padding: 8px 12px;
  overflow-wrap: anywhere; }
li { overflow-wrap: anywhere; }
dl { display: flex; flex-wrap: wrap; gap: 6px 28px; margin: 14px 0; padding: 10px 14px;
  background: var(--panel); border-radius: 6px; }
dt { color: var(--muted); font-size: 12px; }
dd { margin: 0; overflow-wrap: anywhere; unicode-bidi: isolate; }
.wide { overflow-x: auto; }
table { border-collapse: collapse; font-size: 13px; white-space: nowrap; width: 100%; }
th, td { padding: 3px 7px; text-align: right; }
thead th { vertical-align: bottom; border-bottom: 2px solid var(--muted); font-weight: 600; }
td[rowspan] { vertical-align: top; }
tr.first > * { border-top: 1px solid var(--line); }
summary { cursor: pointer; }
summary h2 { display: inline-block; margin: 0; }
section.run { margin-top: 26px; border-top: 2px solid var(--line); padding-top: 12px; }
.pair { display: grid; grid-template-columns: minmax(0, 5fr) minmax(0, 2fr); gap: 6px 20px; }
figure { margin: 0; }
.legend span { white-space: nowrap; margin-right: 18px; font-weight: 600; }
span.lost { color: var(--bad); } span.taken { color: var(--good); }
span.wrapped { color: var(--wrap); } span.far { color: var(--bad); }
svg.plot { display: block; overflow: visible; width: calc(100% - 84px); margin: 0 16px 0 68px; }
svg.plot.rates { width: calc(100% - 240px); margin: 0 130px 0 110px; }
svg svg { overflow: visible; }
svg text { font-size: 12px; fill: var(--ink); }
svg text.tick, svg text.axis, svg text.zone { fill: var(--muted); }
svg text.note { font-weight: 600; fill: var(--bad); paint-order: stroke; stroke: var(--paper);
  stroke-width: 4px; }
svg text.fails { fill: var(--bad); font-weight: 700; }
.grid { stroke: var(--line); } .zero, .frame { stroke: var(--muted); }
.band { fill: var(--band); } .edge { stroke: var(--data); stroke-dasharray: 4 3; }
.logzone { fill: var(--log); }
.data { stroke: var(--data); stroke-width: 1.6px; vector-effect: non-scaling-stroke;
  stroke-linecap: round; fill: none; }
.data.sparse { stroke-width: 3px; }
.stem { stroke: var(--data); stroke-width: 2px; }
.mark.good { fill: var(--data); } .mark.uncounted { fill: var(--paper); stroke: var(--muted); }
.mark.bad { fill: var(--bad); stroke: var(--bad); stroke-width: 2.5px; }
.bar { fill: var(--data); stroke: var(--paper); stroke-width: 0.5px; } .outer { fill: var(--bad); }
.striphole { fill: none; stroke: var(--line); } .strip { fill: var(--wrap); }
line.lost { stroke: var(--bad); stroke-dasharray: 5 3; } path.lost { fill: var(--bad); }
line.taken { stroke: var(--good); } path.taken { fill: var(--good); }
line.wrapped { stroke: var(--wrap); stroke-dasharray: 2 3; } path.wrapped { fill: var(--wrap); }
path.far { fill: none; stroke: var(--bad); stroke-width: 2px; }
@media screen and (max-width: 1160px) {
  table { font-size: 12px; }
  th, td { padding: 3px 4px; }
}
@media screen and (max-width: 760px) {
  main { padding: 14px 12px 30px; }
  table { font-size: 13px; }
  th, td { padding: 3px 5px; }
  .pair { grid-template-columns: minmax(0, 1fr); }
  svg.plot.rates { width: calc(100% - 214px); margin: 0 118px 0 96px; }
}
@page { margin: 12mm; }
@media print {
  body { font-size: 9.5pt; print-color-adjust: exact; -webkit-print-color-adjust: exact; }
  main { max-width: none; padding: 0; }
  table { font-size: 7.5pt; } th, td { padding: 1px 4px; }
  .wide { overflow: visible; }
  .pair { grid-template-columns: minmax(0, 62fr) minmax(0, 38fr); }
  tbody, figure, .channel, .verdict, dl, li { break-inside: avoid; }
  h2, h3, summary, .legend { break-after: avoid; }
  a { color: inherit; text-decoration: none; }
}
)css";

}  // namespace orvo::inspection
