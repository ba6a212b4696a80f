// The recording, what is chosen of it, and sums over that.
"use strict";

// Texts of the recording are shown by textContent alone. Control characters and those that turn the direction of
// writing are shown as signs.
function plain(text) {
  return text.replace(/[\0-\x08\x0b-\x1f]/g, c => String.fromCharCode(0x2400 + c.charCodeAt(0)))
    .replace(/[\x7f-\x9f\u200e\u200f\u202a-\u202e\u2066-\u2069]/g, "\ufffd");
}

const data = JSON.parse(document.getElementById("data").textContent);
const runs = data.runs, texts = data.texts.map(plain), names = data.threads.name.map(plain);
const samples = data.t.length;
const usual = samples > 1 ? (data.t[samples - 1] - data.t[0]) / (samples - 1) : Number(data.meta.every_ms) || 1000; // interval
const groups = names.map(name => name.replace(/[0-9]+/g, "{n}"));

// In the order of their colours in page.css; the last two are idle.
const STATES = ["Runnable", "Lock", "DB Wait", "Network Wait", "IO Wait", "RMI Wait", "Object Wait", "Sleeping"];
const isIdle = state => STATES.indexOf(state) > 5;
const stateOf = run => texts[runs.state[run]];
const colourOf = state => `var(--s${STATES.includes(state) ? STATES.indexOf(state) : STATES.length})`;

// States that occur, known ones first.
const seenStates = (() => {
  const seen = Array.from(new Set(runs.state), state => texts[state]);
  return STATES.filter(state => seen.includes(state)).concat(seen.filter(state => !STATES.includes(state)).sort());
})();

// When a sample was taken; that after the last one would have been an interval later.
function timeOf(sample) {
  return sample < samples ? data.t[sample] : (samples ? data.t[samples - 1] : 0) + usual;
}

let choice;
function chooseAll() {
  choice = {states: new Set(seenStates), group: "", search: "", url: -1, sql: -1, thread: -1, from: 0, to: samples};
}
chooseAll();

function framesOf(stack) {
  const frames = [];
  for (let node = stack < 0 ? 0 : data.stacks[stack]; node > 0; node = data.nodes.parent[node])
    frames.push(texts[data.nodes.text[node]]);
  return frames;
}

// What holds the text that is searched for; a call's number is higher than its caller's.
function hitsOf(search) {
  const has = text => text.toLowerCase().includes(search.toLowerCase());
  const text = texts.map(has), node = new Uint8Array(data.nodes.parent.length);
  for (let i = 1; i < node.length; ++i)
    node[i] = node[data.nodes.parent[i]] || text[data.nodes.text[i]];
  return {text, stack: data.stacks.map(leaf => node[leaf]), thread: names.map(has)};
}
let hits = null; // of the search, while there is one

function isHit(run) {
  return !hits || hits.thread[runs.thread[run]] || hits.text[runs.state[run]] || hits.stack[runs.stack[run]] ||
    hits.text[runs.url[run]] || hits.text[runs.sql[run]];
}

function isThreadChosen(thread) {
  return (!choice.group || groups[thread] === choice.group) && (choice.thread < 0 || thread === choice.thread);
}

// Calls `each` with each run that is chosen, and its first sample and their count in the time chosen; in any state,
// and over all of the time, where that is asked for.
function eachRun(each, {anyState = false, anyTime = false} = {}) {
  const from = anyTime ? 0 : choice.from, to = anyTime ? samples : choice.to;
  for (let run = 0; run < runs.thread.length; ++run) {
    const first = Math.max(runs.first[run], from), end = Math.min(runs.first[run] + runs.count[run], to);
    if (first < end && (anyState || choice.states.has(stateOf(run))) && isThreadChosen(runs.thread[run]) &&
        (choice.url < 0 || runs.url[run] === choice.url) && (choice.sql < 0 || runs.sql[run] === choice.sql) && isHit(run))
      each(run, first, end - first);
  }
}

// Samples by a key of the runs, those that are chosen.
function sumsBy(keyOf, where) {
  const sums = new Map();
  eachRun((run, first, count) => sums.set(keyOf(run), (sums.get(keyOf(run)) || 0) + count), where);
  return sums;
}

const SPLITS = {
  state: stateOf,
  group: run => groups[runs.thread[run]],
  sql: run => texts[runs.sql[run]] || "no SQL",
  url: run => texts[runs.url[run]] || "no URL"
};

// The samples of each call of the stacks, as {name, value, children}; `by` a key of SPLITS splits it at its top.
function flameTree(by) {
  const {parent, text} = data.nodes, weights = new Map(), root = {name: "all", value: 0, children: []};
  eachRun((run, first, count) => {
    const key = by ? SPLITS[by](run) : "";
    if (!weights.has(key))
      weights.set(key, new Float64Array(parent.length));
    weights.get(key)[runs.stack[run] < 0 ? 0 : data.stacks[runs.stack[run]]] += count;
  });
  weights.forEach((weight, key) => {
    for (let i = parent.length - 1; i > 0; --i)
      weight[parent[i]] += weight[i];
    const made = [by ? {name: key, value: weight[0], children: [], split: by} : root];
    root.value += weight[0];
    for (let i = 1; i < parent.length; ++i)
      if (weight[i])
        made[parent[i]].children.push(made[i] = {name: texts[text[i]], value: weight[i], children: []});
    if (by)
      root.children.push(made[0]);
  });
  return root;
}

function spanText(ms) {
  const s = ms / 1000;
  if (s < 1) return Math.round(ms) + " ms";
  if (s < 10) return s.toFixed(1) + " s";
  if (s < 120) return Math.round(s) + " s";
  if (s < 7200) return `${Math.floor(s / 60)} min ${Math.round(s % 60)} s`;
  return (s / 3600).toFixed(1) + " h";
}

function sizeText(bytes) {
  const units = ["B", "KB", "MB", "GB", "TB"];
  let i = 0;
  for (; bytes >= 1024 && i < 4; ++i)
    bytes /= 1024;
  return (i && bytes < 100 ? bytes.toFixed(1) : Math.round(bytes)) + " " + units[i];
}

function shareText(part, whole) {
  return (whole ? 100 * part / whole : 0).toFixed(1) + " %";
}

function countText(n, what) {
  return n.toLocaleString("en") + " " + what + (n === 1 ? "" : "s");
}
