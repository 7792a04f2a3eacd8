#include "HttpPage.h"

namespace KelKv {

// Names come in by textContent and append() only: they are text, whatever stands in them.
char const* const httpPage = R"page(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>kelkv</title>
<style>
body { font: 14px sans-serif; margin: 1em; }
h1 { margin: 0; }
h2 { font-size: 1.1em; margin: 1.2em 0 0.3em; }
#timeline { display: grid; grid-template-columns: 17em 1fr; border: 1px solid #ccc; }
#lanes div { box-sizing: border-box; height: 44px; padding: 4px 8px; border-bottom: 1px solid #ddd;
             white-space: nowrap; overflow: hidden; text-overflow: ellipsis; }
#lanes small, #state, #axis, #legend { color: #555; }
canvas { display: block; width: 100%; cursor: crosshair; }
#axis { grid-column: 2; position: relative; height: 1.5em; overflow: hidden; font-size: 12px; }
#axis span { position: absolute; top: 2px; transform: translateX(-50%); white-space: nowrap; }
#legend span { margin-right: 1.2em; white-space: pre-wrap; }
#legend i { display: inline-block; width: 12px; height: 12px; margin-right: 4px; vertical-align: -1px; }
#pointed { min-height: 1.2em; margin: 0.5em 0; white-space: pre-wrap; }
table { border-collapse: collapse; }
td, th { padding: 2px 10px; border-bottom: 1px solid #ddd; text-align: right; }
td { font-variant-numeric: tabular-nums; white-space: pre-wrap; }
th { white-space: nowrap; }
td:nth-child(-n+2), th:nth-child(-n+2), #tasks :nth-child(3) { text-align: left; }
</style>
</head>
<body>
<h1>kelkv</h1>
<p id="state">loading</p>
<div id="timeline"><div id="lanes"></div><canvas id="canvas"></canvas><div id="axis"></div></div>
<p id="pointed">Point at a run for its figures; the wheel zooms, and a double click goes back.</p>
<div id="legend"></div>
<h2>Run queues</h2>
<table id="queues"></table>
<h2>Tasks</h2>
<table id="tasks"></table>
<script>
"use strict";
const span = 10e6, laneHeight = 44, runs = { top: 4, height: 22 }, queue = { bottom: 40, height: 11 };
const red = "#d00", grey = "#aaa", unknown = "#f2f2f2", namesShown = 24;
const byId = id => document.getElementById(id);
const canvas = byId("canvas"), context = canvas.getContext("2d"), colours = new Map();
let trace = { lanes: [], begin: 0, end: 0, names: [] };
let zoom = null; // or the times between which the standing timeline is shown, in microseconds
let drawn = [];

function colour(name) {
  if (!colours.has(name)) colours.set(name, `hsl(${30 + colours.size * 137 % 300}, 65%, 45%)`);
  return colours.get(name);
}

function append(parent, tag, text) {
  const child = parent.appendChild(document.createElement(tag));
  child.textContent = text;
  return child;
}

function readTrace(events) {
  const lanes = new Map(), names = new Set();
  let begin = Infinity, end = 0;
  for (const e of events) {
    if (e.ph === "M") {
      if (e.name === "thread_name")
        lanes.set(e.tid, { name: e.args.name, runs: [], violations: [], lengths: [] });
      continue;
    }
    begin = Math.min(begin, e.ts);
    end = Math.max(end, e.ts + (e.dur ?? 0));
    if (e.ph === "X") lanes.get(e.tid).runs.push(e), names.add(e.name);
    else if (e.ph === "C") lanes.get(e.tid).lengths.push(e);
    else if (e.name.endsWith("violation")) lanes.get(e.tid).violations.push(e);
  }
  return { lanes: [...lanes.values()], begin, end, names: [...names] };
}

function view() {
  const [begin, end] = zoom ?? [trace.end - span, trace.end], scale = canvas.clientWidth / (end - begin);
  return { begin, end, x: time => (Math.min(Math.max(time, begin), end) - begin) * scale };
}

function drawRuns(lane, top, { begin, end, x }) {
  for (const e of lane.runs) {
    if (e.ts + e.dur < begin || e.ts > end) continue;
    const from = x(e.ts), width = Math.max(1, x(e.ts + e.dur) - from);
    context.fillStyle = colour(e.name);
    context.fillRect(from, top + runs.top, width, runs.height);
    drawn.push({ from, width, top, e });
  }
  context.fillStyle = red;
  for (const e of lane.violations)
    if (e.ts >= begin && e.ts <= end) context.fillRect(x(e.ts) - 1, top + 1, 3, runs.height + 6);
}

function drawQueue({ lengths }, top, { begin, end, x }) {
  const height = queue.height / Math.max(1, ...lengths.map(e => e.args.tasks));
  context.fillStyle = grey;
  lengths.forEach((e, i) => {
    const until = lengths[i + 1]?.ts ?? trace.end;
    if (e.args.tasks > 0 && e.ts <= end && until >= begin)
      context.fillRect(x(e.ts), top + queue.bottom, Math.max(1, x(until) - x(e.ts)), -height * e.args.tasks);
  });
}

/* A step of 1, 2 or 5 by a power of ten, so that there are six to fifteen of them. */
function axisStep(length) {
  const power = 10 ** Math.floor(Math.log10(length / 6));
  return power * [5, 2, 1].find(factor => length / (power * factor) >= 6);
}

function axisText(before, step) {
  const [unit, name] = step >= 1e5 ? [1e6, "s"] : step >= 100 ? [1e3, "ms"] : [1, "µs"];
  const decimals = Math.max(0, Math.ceil(-Math.log10(step / unit)));
  return before === 0 ? "now" : `−${(before / unit).toFixed(decimals)} ${name}`;
}

function drawAxis({ begin, end, x }, height) {
  const step = axisStep(end - begin);
  byId("axis").replaceChildren();
  context.fillStyle = "#ddd";
  for (let n = Math.ceil((trace.end - end) / step); n * step < trace.end - begin; ++n) {
    const at = x(trace.end - n * step), label = append(byId("axis"), "span", axisText(n * step, step));
    context.fillRect(at, 0, 1, height);
    label.style.left = `clamp(1.5em, ${at}px, 100% - 1.5em)`;
  }
}

function drawTimeline() {
  const height = trace.lanes.length * laneHeight, ratio = devicePixelRatio, now = view();
  canvas.style.height = `${height}px`;
  canvas.width = canvas.clientWidth * ratio;
  canvas.height = Math.max(1, height) * ratio;
  context.scale(ratio, ratio);
  context.fillStyle = unknown;
  context.fillRect(0, 0, now.x(trace.begin), height);
  drawAxis(now, height);
  drawn = [];
  trace.lanes.forEach((lane, i) => {
    context.fillStyle = "#ddd";
    context.fillRect(0, (i + 1) * laneHeight - 1, canvas.clientWidth, 1);
    drawQueue(lane, i * laneHeight, now);
    drawRuns(lane, i * laneHeight, now);
  });
}

function nameLanes() {
  byId("lanes").replaceChildren();
  for (const lane of trace.lanes) {
    const label = append(byId("lanes"), "div", lane.name);
    label.title = lane.name;
    label.appendChild(document.createElement("br"));
    const queued = Math.max(0, ...lane.lengths.map(e => e.args.tasks));
    append(label, "small", `${lane.runs.length} runs, ${queued} queued at most`);
  }
}

function showLegend() {
  byId("legend").replaceChildren();
  const entry = (text, background) => {
    const line = append(byId("legend"), "span", "");
    append(line, "i", "").style.background = background;
    line.append(text);
  };
  for (const name of trace.names.slice(0, namesShown)) entry(name, colour(name));
  if (trace.names.length > namesShown)
    append(byId("legend"), "span", `and ${trace.names.length - namesShown} more`);
  entry("a violation of the quantum", red);
  entry("tasks in the run queue", grey);
  entry("before the history begins", unknown);
}

function showTrace(events) {
  trace = readTrace(events);
  nameLanes();
  showLegend();
  drawTimeline();
}

function parseMetrics(text) {
  const samples = [];
  for (const line of text.split("\n")) {
    const sample = /^keltask_(\w+)\{(.*)\} (\S+)$/s.exec(line);
    if (!sample) continue;
    const labels = {};
    for (const [, name, value] of sample[2].matchAll(/(\w+)="((?:[^"\\]|\\.)*)"/gs))
      labels[name] = value.replace(/\\(.)/g, (_, c) => c === "n" ? "\n" : c);
    samples.push({ name: sample[1], labels, value: Number(sample[3]) });
  }
  return samples;
}

function fillTable(id, columns, rows) {
  const table = byId(id);
  table.replaceChildren();
  for (const cells of [columns, ...rows]) {
    const line = table.insertRow();
    for (const cell of cells) append(line, cells === columns ? "th" : "td", cell);
  }
}

function showMetrics(samples) {
  const tasks = new Map(), queues = new Map();
  for (const { name, labels, value } of samples) {
    const of = labels.task !== undefined ? tasks : labels.priority ? queues : null;
    if (!of) continue;
    const key = JSON.stringify([labels.scheduler, labels.priority, labels.task]);
    if (!of.has(key)) of.set(key, labels);
    of.get(key)[name + (labels.limit ?? "")] = value;
  }
  const us = seconds => (seconds * 1e6).toFixed(1);
  fillTable("tasks", ["scheduler", "priority", "task", "runs", "run seconds", "last latency µs", "max latency µs",
                      "over 200 %", "over 500 %"],
    [...tasks.values()].sort((a, b) => b.task_run_seconds_total - a.task_run_seconds_total).map(t =>
      [t.scheduler, t.priority, t.task, t.task_runs_total, t.task_run_seconds_total.toFixed(6),
       us(t.task_last_latency_seconds), us(t.task_max_latency_seconds),
       t.task_quantum_violations_total200, t.task_quantum_violations_total500]));
  fillTable("queues", ["scheduler", "priority", "runnable", "idle", "dead"],
    [...queues.values()].filter(q => q.runnable_tasks + q.idle_tasks + q.dead_tasks_total > 0).map(q =>
      [q.scheduler, q.priority, q.runnable_tasks, q.idle_tasks, q.dead_tasks_total]));
}

function showRun({ name, dur, args }) {
  const parts = [`${name}: ${dur} µs`];
  if (args.latency_us !== undefined) parts.push(`scheduled ${args.latency_us} µs before`);
  if (args.quantum_percent !== undefined)
    parts.push(`${args.about ? "about " : ""}${args.quantum_percent} % of the quantum`);
  if (args.cut) parts.push(`its ${args.cut} is not in the history`);
  byId("pointed").textContent = parts.join(", ");
}

canvas.onmousemove = event => {
  const hit = drawn.findLast(d => event.offsetX >= d.from - 1 && event.offsetX <= d.from + d.width + 1 &&
                                  event.offsetY >= d.top && event.offsetY < d.top + laneHeight);
  if (hit) showRun(hit.e);
};

canvas.onwheel = event => {
  event.preventDefault();
  const { begin, end } = view(), factor = event.deltaY < 0 ? 0.5 : 2;
  const at = begin + (end - begin) * event.offsetX / canvas.clientWidth;
  const from = Math.max(trace.end - span, at - (at - begin) * factor);
  const to = Math.min(trace.end, at + (end - at) * factor);
  zoom = to - from >= span ? null : to - from >= 1 ? [from, to] : zoom;
  drawTimeline();
};

canvas.ondblclick = () => {
  zoom = null;
  drawTimeline();
};

onresize = drawTimeline;

async function refresh() {
  const state = byId("state");
  try {
    const get = path => fetch(path, { signal: AbortSignal.timeout(5000) });
    const [events, metrics] = [await get("/trace.json"), await get("/metrics")];
    const standing = zoom !== null, read = await events.json();
    if (!standing) showTrace(read.traceEvents);
    showMetrics(parseMetrics(await metrics.text()));
    state.textContent = standing ? "The timeline stands still until a double click; the tables are live."
                                 : "The last ten seconds, live.";
  } catch (error) {
    state.textContent = `no answer: ${error.message}`;
  }
  setTimeout(refresh, 1000);
}
refresh();
</script>
</body>
</html>
)page";

} // namespace KelKv
