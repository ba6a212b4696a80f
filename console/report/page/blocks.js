// Who waited for whose locks, as a graph from left to right: a holder, those who waited for it, those who waited for them.
const MOST_EDGES = 40, NODE_ROW = 46, NODE_HEIGHT = 36;

// Nodes by key, and edges {from, to, lock, count}. Threads of a group that hold nothing are one node.
function blockGraph() {
  const byThreadId = new Map(data.threads.id.map((id, thread) => [id, thread])), nodes = new Map(), edges = new Map();
  const holders = new Set(runs.owner.filter((owner, run) => owner && runs.lock_class[run] >= 0).map(id => byThreadId.get(id)));
  const nodeOf = (key, name) => {
    if (!nodes.has(key))
      nodes.set(key, {key, name, threads: new Set(), waits: [], holds: []});
    return nodes.get(key);
  };
  const threadNode = thread => nodeOf("thread " + thread, names[thread]);
  eachRun((run, first, count) => {
    if (runs.lock_class[run] < 0)
      return;
    const thread = runs.thread[run], owner = byThreadId.get(runs.owner[run]);
    const to = holders.has(thread) ? threadNode(thread) : nodeOf("group " + groups[thread], groups[thread]);
    const from = owner === undefined ? nodeOf("holder " + runs.owner[run], "holder unknown") : threadNode(owner);
    to.threads.add(thread);
    const lock = texts[runs.lock_class[run]], key = [from.key, to.key, lock].join("\n");
    if (!edges.has(key))
      edges.set(key, {from, to, lock, count: 0});
    edges.get(key).count += count;
    from.thread = owner;
  });
  return Array.from(edges.values()).sort((a, b) => b.count - a.count);
}

// The column of a node: one more than those it waited for. Threads that waited for each other form a ring, whose last
// edge goes back.
function columnOf(node, path) {
  if (node.column === undefined) {
    node.waits.forEach(edge => edge.ring = edge.ring || path.includes(edge.from));
    const before = node.waits.filter(edge => !edge.ring);
    node.column = d3.max(before, edge => columnOf(edge.from, path.concat(edge.from)) + 1) || 0;
    node.parent = before.filter(edge => edge.from.column === node.column - 1).map(edge => edge.from)[0];
  }
  return node.column;
}

// The row of a node: in the middle of those that waited for it most.
function rowOf(node, rows) {
  const below = node.holds.map(edge => edge.to).filter((to, i, all) => to.parent === node && all.indexOf(to) === i);
  node.row = below.length ? d3.mean(below.map(to => rowOf(to, rows))) : rows.next++;
  return node.row;
}

// Gives the nodes of the edges their places; returns them.
function layOut(edges) {
  edges.forEach(edge => {
    edge.from.holds.push(edge);
    edge.to.waits.push(edge);
  });
  const nodes = Array.from(new Set(edges.flatMap(edge => [edge.from, edge.to]))), rows = {next: 0};
  nodes.forEach(node => columnOf(node, [node]));
  nodes.filter(node => !node.parent).forEach(node => rowOf(node, rows));
  return {nodes, rows: rows.next, columns: 1 + d3.max(nodes, node => node.column)};
}

function nodeTitle(node) {
  if (node.threads.size > 1)
    return `${node.name}, ${node.threads.size} threads`;
  return node.threads.size ? names[Array.from(node.threads)[0]] : node.name;
}

// What a node waited for, or what a holder at the start of a chain did meanwhile.
function nodeText(node) {
  if (node.waits.length) {
    const locks = new Set(node.waits.map(edge => edge.lock.split(".").pop())), count = d3.sum(node.waits, edge => edge.count);
    return `${Array.from(locks).join(", ")}: ${countText(count, "sample")}, some ${spanText(count * usual)}`;
  }
  const states = node.thread === undefined ? [] : statesOf(node.thread);
  return states.length ? "holder; mostly " + states[0][0] : "holder";
}

// A thread's states in the time chosen with their samples, most first.
function statesOf(thread) {
  const sums = new Map();
  for (let run = 0; run < runs.thread.length; ++run)
    if (runs.thread[run] === thread && runs.first[run] < choice.to && runs.first[run] + runs.count[run] > choice.from)
      sums.set(stateOf(run), (sums.get(stateOf(run)) || 0) + runs.count[run]);
  return Array.from(sums).sort((a, b) => b[1] - a[1]);
}

function edgeText({from, to, lock, count}) {
  return `${nodeTitle(to)} waited for ${lock}\nheld by ${nodeTitle(from)}\n` +
    `in ${countText(count, "sample")}, some ${spanText(count * usual)}`;
}

function drawGraph(edges) {
  const {nodes, rows, columns} = layOut(edges), width = widthOf("blocks"), svg = newDrawing("blocks", rows * NODE_ROW);
  const gap = Math.min(140, width / columns * 0.25), box = Math.min(340, (width - gap * (columns - 1)) / columns);
  const step = columns > 1 ? Math.min((width - box) / (columns - 1), box + 2 * gap) : 0;
  const left = node => node.column * step, middle = node => node.row * NODE_ROW + NODE_ROW / 2;
  const thick = d3.scale.sqrt().domain([0, edges[0].count]).range([1, 12]);
  const curve = d3.svg.diagonal().source(e => ({x: middle(e.from), y: left(e.from) + box}))
    .target(e => ({x: middle(e.to), y: left(e.to)})).projection(p => [p.y, p.x]);
  withTip(svg.selectAll(".edge").data(edges).enter().append("path").attr("class", edge => edge.ring ? "edge ring" : "edge")
    .attr("d", curve).style("stroke-width", edge => thick(edge.count)), edgeText);
  const node = svg.selectAll(".node").data(nodes).enter().append("g").attr("class", "node")
    .attr("transform", n => `translate(${left(n)},${middle(n) - NODE_HEIGHT / 2})`);
  node.append("rect").attr("width", box).attr("height", NODE_HEIGHT).attr("rx", 5);
  node.append("text").attr("class", "label").attr("x", 9).attr("y", 15).text(n => clipped(nodeTitle(n), Math.floor(box / 7)));
  node.append("text").attr("x", 9).attr("y", 29).text(n => clipped(nodeText(n), Math.floor(box / 6.4)));
  withTip(node, n => n.waits.length ? n.waits.map(edgeText).join("\n\n") : `${nodeTitle(n)}\n${nodeText(n)}`);
}

function drawBlocks() {
  const edges = blockGraph(), box = byId("blocks");
  if (!edges.length) {
    clear(box).appendChild(make("p", "none", "No thread waited for a lock that another one held."));
    return;
  }
  drawGraph(edges.slice(0, MOST_EDGES));
  if (edges.some(edge => edge.ring))
    box.appendChild(make("p", "warning", "Dashed: these threads waited for each other."));
  if (edges.length > MOST_EDGES)
    box.appendChild(make("p", "none", `The ${MOST_EDGES} with most samples of ${edges.length}.`));
}
