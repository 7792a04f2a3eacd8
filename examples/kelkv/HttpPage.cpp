#include "HttpPage.h"

namespace KelKv {

// Names of tasks come in by textContent and fillText only: they are text, whatever stands in them.
char const* const httpPage = R"page(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>kelkv</title>
<style>
body { font: 14px sans-serif; margin: 1em; }
canvas { width: 100%; border: 1px solid #ccc; }
table { border-collapse: collapse; margin-top: 1em; }
td, th { padding: 2px 8px; border-bottom: 1px solid #ddd; text-align: right; }
td:nth-child(-n+2), th:nth-child(-n+2), #tasks :nth-child(3) { text-align: left; }
</style>
</head>
<body>
<h1>kelkv</h1>
<p>The last ten seconds: runs, violations of the quantum (red), the length of each run queue (line).
<span id="state">loading</span></p>
<canvas id="timeline"></canvas>
<p id="pointed">&nbsp;</p>
<table id="queues"></table>
<table id="tasks"></table>
<script>
"use strict";
const span = 10e6, row = 26, left = 200;
const canvas = document.getElementById("timeline");
let drawn = [];

function colour(name) {
  let hash = 0;
  for (const c of name) hash = (hash * 31 + c.codePointAt(0)) >>> 0;
  return `hsl(${hash % 300 + 30}, 60%, 50%)`;
}

function drawLane(context, lane, name, events, x) {
  const top = (lane - 1) * row;
  context.fillStyle = "black";
  context.fillText(name, 4, top + 16, left - 8);
  const lengths = events.filter(e => e.ph === "C");
  const most = Math.max(1, ...lengths.map(e => e.args.tasks));
  for (const e of events) {
    if (e.ph === "X" && e.ts + e.dur >= x.begin) {
      const from = x(Math.max(e.ts, x.begin)), width = Math.max(1, x(e.ts + e.dur) - from);
      context.fillStyle = colour(e.name);
      context.fillRect(from, top + 3, width, row - 10);
      drawn.push({ from, width, top, e });
    } else if (e.ph === "i" && e.ts >= x.begin && e.name.endsWith("violation")) {
      context.fillStyle = "red";
      context.fillRect(x(e.ts) - 1, top, 3, row - 4);
    }
  }
  context.strokeStyle = "#555";
  context.beginPath();
  let y = top + row - 3;
  context.moveTo(left, y);
  for (const e of lengths) {
    const at = x(Math.max(e.ts, x.begin));
    context.lineTo(at, y);
    y = top + row - 3 - 8 * e.args.tasks / most;
    context.lineTo(at, y);
  }
  context.lineTo(canvas.width, y);
  context.stroke();
}

function drawTimeline(events) {
  const names = new Map(), lanes = new Map();
  let end = 0;
  for (const e of events) {
    if (e.name === "thread_name") names.set(e.tid, e.args.name);
    else if (e.ph !== "M") end = Math.max(end, e.ts + (e.dur ?? 0));
    if (!lanes.has(e.tid)) lanes.set(e.tid, []);
    if (e.ph !== "M" && e.s !== "p") lanes.get(e.tid).push(e);
  }
  canvas.width = canvas.clientWidth;
  canvas.height = Math.max(1, names.size) * row;
  const begin = end - span, scale = (canvas.width - left) / span;
  const x = Object.assign(time => left + (time - begin) * scale, { begin });
  drawn = [];
  for (const [lane, name] of names)
    drawLane(canvas.getContext("2d"), lane, name, lanes.get(lane), x);
}

function parseMetrics(text) {
  const samples = [];
  for (const line of text.split("\n")) {
    const sample = /^keltask_(\w+)\{(.*)\} (\S+)$/.exec(line);
    if (!sample) continue;
    const labels = {};
    for (const [, name, value] of sample[2].matchAll(/(\w+)="((?:[^"\\]|\\.)*)"/g))
      labels[name] = value.replace(/\\(.)/g, (_, c) => c === "n" ? "\n" : c);
    samples.push({ name: sample[1], labels, value: Number(sample[3]) });
  }
  return samples;
}

function fillTable(id, columns, rows) {
  const table = document.getElementById(id);
  table.replaceChildren();
  for (const cells of [columns, ...rows]) {
    const line = table.insertRow();
    for (const cell of cells)
      line.appendChild(document.createElement(cells === columns ? "th" : "td")).textContent = cell;
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
                      "200 %", "500 %"],
    [...tasks.values()].sort((a, b) => b.task_run_seconds_total - a.task_run_seconds_total).map(t =>
      [t.scheduler, t.priority, t.task, t.task_runs_total, t.task_run_seconds_total.toFixed(6),
       us(t.task_last_latency_seconds), us(t.task_max_latency_seconds),
       t.task_quantum_violations_total200, t.task_quantum_violations_total500]));
  fillTable("queues", ["scheduler", "priority", "runnable", "idle", "dead"],
    [...queues.values()].map(q =>
      [q.scheduler, q.priority, q.runnable_tasks, q.idle_tasks, q.dead_tasks_total]));
}

canvas.onmousemove = event => {
  const hit = drawn.findLast(d => event.offsetX >= d.from - 1 && event.offsetX <= d.from + d.width + 1 &&
                                  event.offsetY >= d.top && event.offsetY < d.top + row);
  document.getElementById("pointed").textContent =
    hit ? `${hit.e.name}: ${hit.e.dur} µs, ${JSON.stringify(hit.e.args)}` : "\u00a0";
};

async function refresh() {
  const state = document.getElementById("state");
  try {
    const [trace, metrics] = [await fetch("/trace.json"), await fetch("/metrics")];
    drawTimeline((await trace.json()).traceEvents);
    showMetrics(parseMetrics(await metrics.text()));
    state.textContent = `${drawn.length} runs`;
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
