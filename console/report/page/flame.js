// Stacks with their samples, callers on top of what they call.
const ROW = 18, MOST_ROWS = 600;
let zoomed = []; // names from the top to the call that fills the width

// A colour for the first parts of a name: the JDK's are cold.
function frameColour(node) {
  if (node.split === "state")
    return colourOf(node.name);
  if (node.split || node.name === "all")
    return "var(--s6)";
  let hash = 0;
  for (const c of node.name.split(".").slice(0, 3).join("."))
    hash = (hash * 31 + c.charCodeAt(0)) >>> 0;
  const light = 66 + hash % 10;
  return /^(java|javax|jdk|sun)\./.test(node.name) ? `hsl(212,24%,${light + 6}%)` : `hsl(${16 + hash % 40},78%,${light}%)`;
}

// The boxes of a call and of what it calls, as wide as their share of the call that is zoomed.
function placeBoxes(node, place, boxes) {
  const width = place.scale * node.value;
  if (width < 0.6 || place.row > MOST_ROWS)
    return;
  boxes.push({node, x: place.x, width, row: place.row, path: place.path});
  let x = place.x;
  node.children.sort((a, b) => b.value - a.value || (a.name < b.name ? -1 : 1)).forEach(child => {
    placeBoxes(child, {x, row: place.row + 1, scale: place.scale, path: place.path.concat(child.name)}, boxes);
    x += place.scale * child.value;
  });
}

// All boxes: the way to the zoomed call over the whole width, then that call.
function flameBoxes(root, width) {
  const boxes = [];
  let top = root;
  for (const name of zoomed) {
    const next = top.children.find(child => child.name === name);
    if (!next)
      break; // what was zoomed isn't among what is chosen
    boxes.push({node: top, x: 0, width, row: boxes.length, path: zoomed.slice(0, boxes.length), above: true});
    top = next;
  }
  const path = zoomed.slice(0, boxes.length);
  placeBoxes(top, {x: 0, row: boxes.length, scale: top.value ? width / top.value : 0, path}, boxes);
  return boxes;
}

// A frame's name as far as there is room: first its package goes.
function frameText({node, width}) {
  const room = Math.floor((width - 8) / 6.6), name = node.name.replace(/\s+/g, " ");
  return clipped(name.length > room && !node.split ? name.split(".").slice(-2).join(".") : name, room);
}

function drawFlame() {
  const root = flameTree(byId("split").value), width = widthOf("flame"), boxes = flameBoxes(root, width);
  const svg = newDrawing("flame", (1 + (d3.max(boxes, box => box.row) || 0)) * ROW), search = choice.search.toLowerCase();
  const box = svg.selectAll("g").data(boxes).enter().append("g").attr("transform", b => `translate(${b.x},${b.row * ROW})`)
    .classed("above", b => b.above).classed("quiet", b => /s[67]/.test(frameColour(b.node)))
    .classed("hit", b => search && b.node.name.toLowerCase().includes(search));
  box.append("rect").attr("width", b => b.width).attr("height", ROW - 1).style("fill", b => frameColour(b.node));
  box.filter(b => b.width > 32).append("text").attr("x", 4).attr("y", 13).text(frameText);
  withTip(box, ({node: {name, value}}) => `${clipped(name, 900)}\n${countText(value, "sample")}, ` +
    `${shareText(value, root.value)}, some ${spanText(value * usual)} of threads' time`);
  box.on("click", b => zoomTo(b.path));
  byId("flame-note").textContent = zoomed.length ? "Esc or a click on a caller zooms out"
    : "threads' time by stack, callers on top; click to zoom";
}

function zoomTo(path) {
  zoomed = path;
  hideTip();
  drawFlame();
}
