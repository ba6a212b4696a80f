// What all drawings share: elements, tips, the axis of time.
const byId = id => document.getElementById(id);

function make(tag, cls, text) {
  const element = document.createElement(tag);
  if (cls)
    element.className = cls;
  if (text !== undefined)
    element.textContent = text;
  return element;
}

function clear(element) {
  while (element.firstChild)
    element.removeChild(element.firstChild);
  return element;
}

const widthOf = id => Math.max(300, byId(id).clientWidth);

// A new drawing in place of the one before. Its size is that of its box, and follows the paper's when it is printed.
function newDrawing(id, height) {
  const width = widthOf(id);
  return d3.select(clear(byId(id))).append("svg").attr("viewBox", `0 0 ${width} ${height}`).style("max-width", width + "px");
}

function clipped(text, most) {
  return text.length > most ? text.slice(0, Math.max(1, most - 1)) + "…" : text;
}

function showTip(text, event) {
  const tip = byId("tip");
  tip.textContent = clipped(text, 2000);
  tip.hidden = !text;
  const box = tip.getBoundingClientRect(), below = event.clientY + 18;
  tip.style.left = Math.max(4, Math.min(event.clientX + 14, innerWidth - box.width - 8)) + "px";
  tip.style.top = (below + box.height > innerHeight ? Math.max(4, event.clientY - box.height - 10) : below) + "px";
}

function hideTip() {
  byId("tip").hidden = true;
}

function withTip(selection, textOf) {
  return selection.on("mousemove.tip", d => showTip(textOf(d), d3.event)).on("mouseleave.tip", hideTip);
}

// Drawings along the time have their names in a margin on the left, all of the same width.
const RIGHT = 24; // with room for a scroll bar
const leftOf = width => width < 700 ? 110 : 190;
const clock = ms => d3.time.format("%H:%M:%S")(new Date(ms));

function timeScale(from, to, width) {
  return d3.time.scale().domain([timeOf(from), Math.max(timeOf(to), timeOf(from) + 1)]).range([leftOf(width), width - RIGHT]);
}

function drawTimeAxis(svg, x, top) {
  const [begin, end] = x.range(), [from, to] = x.domain();
  let most = Math.min((end - begin) / 90, (to - from) / 1000); // none between the seconds
  while (most > 1 && x.ticks(most).length > (end - begin) / 70)
    most /= 2;
  svg.append("g").attr("class", "axis").attr("transform", `translate(0,${top})`)
    .call(d3.svg.axis().scale(x).orient("bottom").ticks(most).outerTickSize(0).tickFormat(d3.time.format("%H:%M:%S")));
}

// The sample that a time is in.
function sampleAt(ms) {
  return Math.max(0, Math.min(samples, d3.bisectRight(data.t, ms)) - 1);
}
