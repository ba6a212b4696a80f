// A lane for each thread along the time chosen, those that work most first.
const MOST_LANES = 200, LANE = 16;

// Threads with their parts of runs, as [run, first, count].
function lanesChosen() {
  const lanes = new Map();
  eachRun((run, first, count) => {
    const thread = runs.thread[run];
    if (!lanes.has(thread))
      lanes.set(thread, {thread, busy: 0, seen: 0, spans: []});
    const lane = lanes.get(thread);
    lane.busy += isIdle(stateOf(run)) ? 0 : count;
    lane.seen += count;
    lane.spans.push([run, first, count]);
  });
  return Array.from(lanes.values()).sort((a, b) => b.busy - a.busy || b.seen - a.seen || a.thread - b.thread);
}

function newCanvas(width, height) {
  const canvas = clear(byId("lanes")).appendChild(make("canvas")), ratio = window.devicePixelRatio || 1;
  canvas.width = width * ratio;
  canvas.height = height * ratio;
  canvas.style.width = width + "px";
  canvas.style.height = height + "px";
  canvas.getContext("2d").scale(ratio, ratio);
  return canvas;
}

function paintLane(pen, lane, row, x, colours) {
  const top = row * LANE, room = x.range()[0] - 12;
  lane.spans.forEach(([run, first, count]) => {
    const begin = x(timeOf(first));
    pen.fillStyle = colours.get(stateOf(run));
    pen.fillRect(begin, top + 2, Math.max(0.7, x(timeOf(first + count)) - begin), LANE - 4);
  });
  let name = clipped(names[lane.thread], 60);
  while (name.length > 2 && pen.measureText(name).width > room)
    name = name.slice(0, -2) + "…";
  pen.fillStyle = colours.get("ink");
  pen.fillText(name, 0, top + 12);
}

function spanOf(lane, sample) {
  return lane && lane.spans.find(([, first, count]) => sample >= first && sample < first + count);
}

function runText([run, first, count]) {
  const lines = [names[runs.thread[run]], `${stateOf(run)} in ${countText(count, "sample")} from ${clock(timeOf(first))}`];
  return lines.concat([runs.sql[run], runs.url[run]].filter(text => text >= 0).map(text => clipped(texts[text], 500)),
    framesOf(runs.stack[run]).slice(0, 10)).join("\n");
}

function drawLanes() {
  const all = lanesChosen(), lanes = all.slice(0, MOST_LANES);
  const width = widthOf("time"), x = timeScale(choice.from, choice.to, width);
  byId("lanes-note").textContent = (all.length > lanes.length ? `${lanes.length} of ` : "") + countText(all.length, "thread") +
    ", those that work most first; click for one alone";
  const canvas = newCanvas(width, Math.max(1, lanes.length) * LANE), pen = canvas.getContext("2d");
  const style = getComputedStyle(document.body), colours = new Map([["ink", style.getPropertyValue("--ink")]]);
  seenStates.forEach(state => colours.set(state, style.getPropertyValue(colourOf(state).slice(4, -1))));
  pen.font = "12px " + style.fontFamily;
  lanes.forEach((lane, row) => paintLane(pen, lane, row, x, colours));
  const laneAt = event => lanes[Math.floor((event.clientY - canvas.getBoundingClientRect().top) / LANE)];
  canvas.onmousemove = event => {
    const lane = laneAt(event), sample = sampleAt(+x.invert(event.clientX - canvas.getBoundingClientRect().left));
    const span = spanOf(lane, sample);
    showTip(span ? runText(span) : lane ? names[lane.thread] : "", event);
  };
  canvas.onmouseleave = hideTip;
  canvas.onclick = event => laneAt(event) && pickOrNot("thread", laneAt(event).thread, -1);
  drawTimeAxis(newDrawing("lanes-axis", 22), x, 0);
}
