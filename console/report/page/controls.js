// The page's head, filters and keys.
const idleStates = seenStates.filter(isIdle);

function pick(change) {
  Object.assign(choice, change);
  hits = choice.search ? hitsOf(choice.search) : null;
  draw();
}

// Chooses a value, or takes it back when it is chosen already.
function pickOrNot(key, value, none) {
  pick({[key]: choice[key] === value ? none : value});
}

function drawChosen() {
  const box = clear(byId("chosen")), isPart = choice.from > 0 || choice.to < samples;
  const chip = (name, value, change) => {
    const one = box.appendChild(make("button", "chosen", `${name}: ${value} ×`));
    one.title = value;
    one.onclick = () => pick(change);
  };
  if (choice.thread >= 0)
    chip("thread", names[choice.thread], {thread: -1});
  if (choice.sql >= 0)
    chip("SQL", texts[choice.sql], {sql: -1});
  if (choice.url >= 0)
    chip("URL", texts[choice.url], {url: -1});
  if (isPart)
    chip("time", `${clock(timeOf(choice.from))} to ${clock(timeOf(choice.to - 1))}`, {from: 0, to: samples});
  byId("group").value = choice.group;
}

function draw() {
  hideTip();
  [drawChosen, drawChips, drawFigures, drawTime, drawLanes, drawFlame, drawTables, drawBlocks].forEach(part => part());
}

function drawBadges() {
  const {end} = data, missing = d3.sum(data.missing), silent = data.unanswered.filter(Boolean).length;
  const badge = text => byId("badges").appendChild(make("span", "badge", text)).title = text;
  if (!end)
    badge("the file was cut: the recording may have gone on");
  else if (!["finished", "interrupted"].includes(end.reason))
    badge("ended: " + plain(end.reason + (end.note ? ", " + end.note : "")));
  if (missing)
    badge(countText(missing, "stack") + " missing for want of room");
  if (silent)
    badge(countText(silent, "sample") + " without an answer");
  if (data.unread > (end ? 0 : 1))
    badge(countText(data.unread, "line") + " can't be read");
}

function drawHead() {
  const {meta} = data;
  byId("name").textContent = plain(`${meta.main_class || "JVM"} on ${meta.host || "unknown host"}`);
  document.title = byId("name").textContent + ", recording";
  byId("facts").textContent = plain(`process ${meta.pid}, Java ${meta.java_version || "of unknown version"}, `) +
    countText(samples, "sample") +
    (samples ? ` from ${d3.time.format("%Y-%m-%d %H:%M:%S")(new Date(data.t[0]))}, every ${spanText(usual)}` : "");
  byId("licence").textContent = `Drawn with d3 ${d3.version}, whose licence is in this file.`;
  seenStates.forEach(state => {
    const chip = byId("states").appendChild(make("button", "chip"));
    chip.dataset.state = state;
    chip.appendChild(make("i", "dot")).style.background = colourOf(state);
    chip.append(state);
    chip.appendChild(make("b"));
    chip.onclick = () => toggleStates([state]);
  });
  const sizes = new Map([["", names.length]]);
  groups.forEach(group => sizes.set(group, (sizes.get(group) || 0) + 1));
  Array.from(sizes).sort().forEach(([group, size]) => {
    byId("group").appendChild(make("option", "", `${group || "all thread groups"} (${size})`)).value = group;
  });
}

// Leaves these states out, or takes them in when any is out.
function toggleStates(states) {
  const isOut = states.some(state => !choice.states.has(state));
  states.forEach(state => isOut ? choice.states.add(state) : choice.states.delete(state));
  draw();
}

function setTheme(theme) {
  document.documentElement.dataset.theme = theme;
  draw();
}

function reset() {
  chooseAll();
  zoomed = [];
  byId("search").value = "";
  pick({});
}

const KEYS = {
  "/": () => byId("search").focus(),
  a: () => toggleStates(idleStates),
  s: () => {
    const split = byId("split");
    split.selectedIndex = (split.selectedIndex + 1) % split.options.length;
    zoomTo([]);
  },
  d: () => setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark"),
  "?": () => byId("keys").showModal(),
  Escape: () => zoomed.length ? zoomTo([]) : reset()
};

function listen() {
  let waiting = 0;
  const later = (ms, what) => {
    clearTimeout(waiting);
    waiting = setTimeout(what, ms);
  };
  byId("search").oninput = () => later(150, () => pick({search: byId("search").value}));
  byId("group").onchange = () => pick({group: byId("group").value});
  byId("split").onchange = () => zoomTo([]);
  byId("idle").onclick = KEYS.a;
  byId("reset").onclick = reset;
  byId("theme").onclick = KEYS.d;
  byId("help").onclick = KEYS["?"];
  document.onkeydown = event => {
    const isTyping = /INPUT|SELECT/.test(event.target.tagName) && event.key !== "Escape";
    if (event.ctrlKey || event.metaKey || event.altKey || byId("keys").open || isTyping || !KEYS[event.key])
      return;
    event.preventDefault();
    event.target.blur();
    KEYS[event.key]();
  };
  window.onresize = () => later(150, draw);
  const dark = matchMedia("(prefers-color-scheme: dark)");
  let before = "";
  window.onbeforeprint = () => {
    before = document.documentElement.dataset.theme;
    setTheme("light");
  };
  window.onafterprint = () => setTheme(before);
  document.documentElement.dataset.theme = dark.matches ? "dark" : "light";
}

listen();
drawHead();
drawBadges();
draw();
document.documentElement.dataset.drawn = "yes";
