// Along the time: threads by state, the heap with its collections, and each thread.
const STATES_HEIGHT = 170, HEAP_HEIGHT = 64, MOST_STEPS = 600;

// Threads in each state, averaged over at most MOST_STEPS steps of the time. Samples without an answer don't count.
function stateSteps() {
  const n = Math.max(1, Math.min(samples, MOST_STEPS)), stepOf = sample => Math.floor(sample * n / samples);
  const answered = new Float64Array(n), sums = new Map(seenStates.map(state => [state, new Float64Array(n)]));
  data.unanswered.forEach((why, i) => answered[stepOf(i)] += !why);
  eachRun((run, first, count) => {
    for (let i = first; i < first + count; ++i)
      sums.get(stateOf(run))[stepOf(i)] += 1;
  }, {anyTime: true});
  const base = new Float64Array(n);
  const layers = seenStates.map(state => ({state, points: Array.from(base, (low, step) => {
    base[step] += sums.get(state)[step] / Math.max(1, answered[step]);
    return {time: timeOf(Math.ceil(step * samples / n)), low, high: base[step]};
  })}));
  layers.forEach(({points}) => points.push(Object.assign({}, points[n - 1], {time: timeOf(samples)})));
  return {layers, most: d3.max(base)};
}

function drawStates(svg, x) {
  const {layers, most} = stateSteps();
  const y = d3.scale.linear().domain([0, Math.max(1, most)]).nice(4).range([STATES_HEIGHT, 8]);
  const area = d3.svg.area().interpolate("step-after").x(p => x(p.time)).y0(p => y(p.low)).y1(p => y(p.high));
  svg.selectAll(".layer").data(layers).enter().append("path").attr("class", "layer")
    .attr("d", layer => area(layer.points)).style("fill", layer => colourOf(layer.state));
  drawSide(svg, x, y, y.ticks(4).filter(n => n % 1 === 0), d3.format("d"), "threads");
  data.unanswered.forEach((why, i) => {
    if (why)
      svg.append("rect").attr("class", "gap").attr("x", x(timeOf(i))).attr("y", 8).attr("height", STATES_HEIGHT - 8)
        .attr("width", Math.max(2, x(timeOf(i + 1)) - x(timeOf(i))));
  });
}

// An axis on the left, and what it is of in the margin.
function drawSide(svg, x, y, ticks, format, title) {
  const [bottom, top] = y.range();
  svg.append("g").attr("class", "axis").attr("transform", `translate(${x.range()[0]},0)`)
    .call(d3.svg.axis().scale(y).orient("left").tickValues(ticks).tickFormat(format).outerTickSize(0));
  svg.append("text").attr("class", "label").attr("x", 0).attr("y", (bottom + top) / 2 + 4).text(title);
}

// How often each collector has run between a sample and the one before that has an answer, and how long in all.
function collectionsAt(sample) {
  let before = sample - 1;
  while (before >= 0 && data.unanswered[before])
    --before;
  return before < 0 || data.unanswered[sample] ? [] : data.collectors.map(({name, count, ms}) => ({
    name: plain(name), count: count[sample] - count[before], ms: ms[sample] - ms[before]
  })).filter(collector => collector.count > 0);
}

function drawHeap(svg, x, top) {
  const known = d3.range(samples).filter(i => data.heap[i] !== null), step = Math.ceil(known.length / (2 * MOST_STEPS));
  const most = d3.max(known, i => data.heap[i]), bottom = top + HEAP_HEIGHT;
  const y = d3.scale.linear().domain([0, Math.max(1, most)]).range([bottom, top + 6]);
  const area = d3.svg.area().x(i => x(timeOf(i))).y0(bottom).y1(i => y(data.heap[i]));
  svg.append("path").attr("class", "heap").attr("d", area(known.filter((_, k) => k % step === 0)));
  const ran = known.filter(i => collectionsAt(i).length);
  svg.selectAll(".collection").data(ran.slice(0, 3000)).enter().append("rect").attr("class", "collection")
    .attr("x", i => x(timeOf(i)) - 1).attr("width", 2).attr("y", top - 4).attr("height", 7);
  drawSide(svg, x, y, [0, most], kib => sizeText(kib * 1024), "heap");
  svg.append("text").attr("x", 0).attr("y", top - 3).text(ran.length ? "collections ▪" : "");
}

// What a sample has, over all that is chosen but the time.
function sampleText(sample) {
  const states = new Map();
  eachRun((run, first, count) => {
    if (sample >= first && sample < first + count)
      states.set(stateOf(run), (states.get(stateOf(run)) || 0) + 1);
  }, {anyTime: true});
  const lines = [`${clock(timeOf(sample))}, sample ${data.n[sample]}`];
  if (data.unanswered[sample])
    lines.push("no answer: " + plain(data.unanswered[sample]));
  seenStates.forEach(state => states.has(state) && lines.push(`${state}: ${states.get(state)}`));
  if (data.heap[sample] !== null)
    lines.push("heap in use: " + sizeText(data.heap[sample] * 1024));
  collectionsAt(sample).forEach(({name, count, ms}) => lines.push(`${name}: ${countText(count, "collection")}, ${ms} ms`));
  return lines.join("\n");
}

function addBrush(svg, x, height) {
  const brush = d3.svg.brush().x(x).on("brushend", () => {
    const [from, to] = brush.extent().map(Number);
    pick(brush.empty() ? {from: 0, to: samples} : {from: sampleAt(from), to: sampleAt(to) + 1});
  });
  if (choice.from > 0 || choice.to < samples)
    brush.extent([new Date(timeOf(choice.from)), new Date(timeOf(choice.to) - 1)]);
  const band = svg.append("g").attr("class", "brush").call(brush);
  band.selectAll("rect").attr("y", 8).attr("height", height - 8);
  withTip(band, () => sampleText(sampleAt(+x.invert(d3.mouse(svg.node())[0]))));
}

function drawTime() {
  const hasHeap = data.heap.some(kib => kib !== null), heapTop = STATES_HEIGHT + 20;
  const bottom = hasHeap ? heapTop + HEAP_HEIGHT : STATES_HEIGHT;
  const svg = newDrawing("time", bottom + 24), x = timeScale(0, samples, widthOf("time"));
  byId("time-note").textContent = hasHeap ? "with the heap; drag to choose a time" : "drag to choose a time";
  if (!samples)
    return;
  drawStates(svg, x);
  if (hasHeap)
    drawHeap(svg, x, heapTop);
  drawTimeAxis(svg, x, bottom);
  addBrush(svg, x, bottom);
}
