// Figures and tables.

// A table of rows {cells, pick}. A cell is a text or {text, state, more}, which may be set as `code` or `frames`; `right`
// has the numbers of the columns on the right.
function drawTable(id, titles, rows, none, right = []) {
  const box = clear(byId(id));
  if (!rows.length) {
    box.appendChild(make("p", "none", none));
    return;
  }
  const sheet = box.appendChild(make("div", "scroll")).appendChild(make("table"));
  const head = sheet.appendChild(make("thead")).appendChild(make("tr")), body = sheet.appendChild(make("tbody"));
  titles.forEach((title, i) => head.appendChild(make("th", right.includes(i) ? "right" : "", title)));
  rows.forEach(row => body.appendChild(tableRow(row, right)));
}

function tableRow({cells, pick}, right) {
  const line = make("tr");
  cells.forEach((cell, i) => {
    const {text, code, frames, state, more} = typeof cell === "string" ? {text: cell} : cell;
    const at = line.appendChild(make("td", right.includes(i) ? "right" : frames ? "frames" : ""));
    if (state)
      at.appendChild(make("i", "dot")).style.background = colourOf(state);
    at.appendChild(make(code || frames ? "div" : "span", code ? "code" : "", text)).title = clipped(text, 4000);
    if (more)
      at.appendChild(make("div", "more", more));
  });
  line.tabIndex = 0;
  line.onclick = pick;
  line.onkeydown = event => event.key === "Enter" && pick();
  return line;
}

function drawFigures() {
  const states = sumsBy(stateOf), all = d3.sum(Array.from(states.values())), threads = sumsBy(run => runs.thread[run]).size;
  const box = clear(byId("figures"));
  const figure = (value, name, state) => {
    const one = box.appendChild(make("div", "figure"));
    one.appendChild(make("b", "", value));
    if (state)
      one.appendChild(make("i", "dot")).style.background = colourOf(state);
    one.appendChild(make("span", "", name));
  };
  figure(spanText(samples ? timeOf(choice.to) - timeOf(choice.from) : 0), "time");
  figure(threads.toLocaleString("en"), "threads");
  figure(all.toLocaleString("en"), "samples of threads");
  seenStates.filter(state => states.has(state)).forEach(state => figure(shareText(states.get(state), all), state, state));
  byId("counted").dataset.samples = all;
  byId("counted").textContent = `${countText(all, "sample")} of ${countText(threads, "thread")}`;
}

// How many samples are in each state, whether it is chosen or not.
function drawChips() {
  const states = sumsBy(stateOf, {anyState: true});
  byId("states").querySelectorAll("button").forEach(chip => {
    chip.setAttribute("aria-pressed", choice.states.has(chip.dataset.state));
    chip.lastChild.textContent = (states.get(chip.dataset.state) || 0).toLocaleString("en");
  });
  byId("idle").textContent = idleStates.every(state => choice.states.has(state)) ? "Hide idle" : "Show idle";
}

function stretchText({thread, first, count, stays}) {
  const time = data.t[first + count - 1] - data.t[first];
  const seen = count === 1 ? "in 1 sample" : `in ${count} consecutive samples, at least ${spanText(time)}`;
  const others = stays > 1 ? ` · one of ${countText(stays, "stay")} in the recording` : "";
  return `${seen}, from ${clock(data.t[first])} · ${names[thread]}${others}`;
}

// Whether some of a stay is chosen.
function stretchTest(what) {
  const parts = new Map(), overlap = (s, [text, first, count]) =>
    text === s.text && first < s.first + s.count && first + count > s.first;
  eachRun((run, first, count) => {
    const thread = runs.thread[run];
    parts.set(thread, parts.get(thread) || []).get(thread).push([runs[what][run], first, count]);
  });
  return s => parts.has(s.thread) && parts.get(s.thread).some(part => overlap(s, part));
}

// Statements or requests, by `what`, "sql" or "url": each once, with the longest of its stays that are chosen.
function drawStretches(id, stretches, what, none) {
  const all = sumsBy(run => runs[what][run]), longest = new Map();
  stretches.filter(stretchTest(what)).forEach(s => longest.has(s.text) || longest.set(s.text, s));
  drawTable(id, ["longest stays", "samples in all"], Array.from(longest.values()).slice(0, 60).map(s => ({
    pick: () => pickOrNot(what, s.text, -1),
    cells: [{text: texts[s.text], code: true, more: stretchText(s)}, (all.get(s.text) || 0).toLocaleString("en")]
  })), none, [1]);
}

// Threads that had one stack in every sample with an answer, as [thread, run].
function stuckThreads() {
  const answered = data.unanswered.filter(why => !why).length, seen = new Map();
  for (let run = 0; run < runs.thread.length; ++run) {
    const known = seen.get(runs.thread[run]);
    if (!known)
      seen.set(runs.thread[run], {run, stack: runs.stack[run], count: runs.count[run]});
    else if (known.stack === runs.stack[run])
      known.count += runs.count[run];
  }
  return Array.from(seen).filter(([, {stack, count}]) => answered > 1 && stack >= 0 && count === answered)
    .map(([thread, {run}]) => [thread, run]);
}

const orUnknown = (value, textOf) => value === null ? "unknown" : textOf(value);

// Those of a group at the same place are one row.
function drawStuck() {
  const places = new Map();
  stuckThreads().forEach(([thread, run]) => {
    if (!isThreadChosen(thread) || !choice.states.has(stateOf(run)) || !isHit(run))
      return;
    const key = [groups[thread], runs.stack[run], runs.state[run]].join("\n");
    if (!places.has(key))
      places.set(key, {run, threads: []});
    places.get(key).threads.push(thread);
  });
  const rows = Array.from(places.values()).sort((a, b) => isIdle(stateOf(a.run)) - isIdle(stateOf(b.run)) || a.run - b.run);
  drawTable("stuck", ["thread", "state", "top of the stack", "processor"], rows.slice(0, 200).map(({run, threads}) => ({
    pick: () => threads.length > 1 ? pickOrNot("group", groups[threads[0]], "") : pickOrNot("thread", threads[0], -1),
    cells: [threads.length > 1 ? `${groups[threads[0]]}, ${threads.length} threads` : names[threads[0]],
      {text: stateOf(run), state: stateOf(run)}, {text: framesOf(runs.stack[run]).slice(0, 3).join("\n"), frames: true},
      orUnknown(data.threads.cpu[threads[0]], () => spanText(d3.sum(threads, thread => data.threads.cpu[thread]) / 1e6))]
  })), "No thread was at one place the whole time.", [3]);
}

function drawBusy() {
  const {cpu, alloc} = data.threads, length = samples > 1 ? data.t[samples - 1] - data.t[0] : 0;
  const busy = Array.from(sumsBy(run => runs.thread[run]).keys()).filter(t => cpu[t] > 0 || alloc[t] > 0)
    .sort((a, b) => cpu[b] - cpu[a] || alloc[b] - alloc[a]);
  drawTable("busy", ["thread", "processor", "of one", "allocated"], busy.slice(0, 60).map(t => ({
    pick: () => pickOrNot("thread", t, -1),
    cells: [names[t], orUnknown(cpu[t], ns => spanText(ns / 1e6)), orUnknown(cpu[t], ns => shareText(ns / 1e6, length)),
      orUnknown(alloc[t], sizeText)]
  })), "No thread used the processor.", [1, 2, 3]);
}

function drawTables() {
  const none = "None among what is chosen.";
  drawStretches("statements", data.statements, "sql",
    data.statements.length ? none : "No SQL was seen. Its text is recorded with the option dbquery=1.");
  drawStretches("requests", data.requests, "url", data.requests.length ? none : "No request was seen.");
  drawStuck();
  drawBusy();
}
