"""The page of a recording, in a browser: what it draws and counts, and that nothing of the data runs."""
import collections
import gzip
import json
import os

from harness import COMPUTES, Application, Case, folder, qorctl, wait_until

ESCAPE = "\ue00c"
BROWSER, DRIVER = "/usr/bin/chromium-headless-shell", "/usr/bin/chromedriver"
MARKUP = ("</script><script>document.title='run'</script><img src=x onerror=\"document.title='run'\">"
          "<!--<script>\u2028\x1b")
SEEN = MARKUP.replace("\x1b", "\u241b")
# Two of a name, who wait and are waited for: id, name, and the id of the holder.
CHAINS = [(2001, "a", 2000), (2002, "a", 2000), (2003, "w", 2001), (2004, "v", 2002), (2000, "o", None)]
PAGE = """const graph = blockGraph(), tree = flameTree('sql');
return {samples: Number(byId('counted').dataset.samples), flame: tree.value,
  states: Object.fromEntries(Array.from(document.querySelectorAll('#states button'),
    chip => [chip.dataset.state, Number(chip.lastChild.textContent)])),
  sql: Object.fromEntries(tree.children.map(child => [child.name, child.value])),
  locks: graph.reduce((sums, {to, lock, count}) =>
    ({...sums, [to.name + ' ' + lock]: (sums[to.name + ' ' + lock] || 0) + count}), {}),
  roots: layOut(graph).nodes.filter(node => !node.waits.length).map(node => node.name).sort(),
  stuck: stuckThreads().map(([thread]) => data.threads.id[thread]).sort(), heap: data.heap,
  chosen: [choice.from, choice.to]}"""


def hostile(line):
    """With markup in each text that the data brings."""
    for row in line.get("threads", []):
        if row["name"] == "demo-web":
            row["name"] += MARKUP
            row["request"]["url"] += MARKUP
        if "db" in row:
            row["db"]["sql"] += MARKUP
    if line["type"] == "stack":
        line["frames"][0] = MARKUP
    for thread, name, owner in CHAINS if "threads" in line else ():
        wait = {"waits_for": {"lock": owner, "class": "Chain", "owner": owner}} if owner else {}
        line["threads"].append({"id": thread, "name": name, "state": "Lock", "stack": 1, **wait})
    if line["type"] == "meta":
        line["main_class"] = MARKUP
    return line


def samples_of(lines):
    """Each sample's threads, whole."""
    rows, samples = {}, []
    for line in lines:
        if line["type"] == "sample":
            rows.update((row["id"], row) for row in line["threads"])
            samples.append([rows[id] for id in line["same"]] + line["threads"])
    return samples


def sums_of(samples):
    """What the page has to count."""
    rows = [row for sample in samples for row in sample]
    stacks = collections.defaultdict(list)
    for row in rows:
        stacks[row["id"]].append(row["stack"])
    states = collections.Counter(row["state"] for row in rows)
    waiting = [row for row in rows if "owner" in row.get("waits_for", {})]
    owners = {row["waits_for"]["owner"] for row in waiting} - {row["id"] for row in waiting}
    return {"samples": len(rows), "flame": len(rows), "states": states,
            "sql": collections.Counter(row["db"]["sql"].replace(MARKUP, SEEN) if "db" in row else "no SQL"
                                       for row in rows),
            "locks": collections.Counter(row["name"] + " " + row["waits_for"]["class"] for row in waiting),
            "roots": sorted({row["name"] for row in rows if row["id"] in owners}),
            "stuck": sorted((id for id, all in stacks.items()
                             if len(all) == len(samples) and len(set(all)) == 1), key=str)}


class Report(Case):
    def setUp(self):
        try:
            from selenium import webdriver  # an optional package
            from selenium.webdriver.chrome.service import Service
        except ImportError:
            self.skipTest("python3-selenium isn't installed")
        if not (os.path.exists(BROWSER) and os.path.exists(DRIVER)):
            self.skipTest("no headless Chromium")
        self.place, _ = folder(self)
        options = webdriver.ChromeOptions()
        options.binary_location = BROWSER
        for word in ("--headless", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1280,1000"):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.addCleanup(self.browser.quit)

    def record(self):
        file = f"{self.place}/a.ndjson.gz"
        with Application(COMPUTES) as self.app:
            self.answer("record", "--options", "localquota=100,dbquery=1", "--share", "100",
                        "--every", "200ms", "--for", "1s", "--out", file)
        with gzip.open(file, "rt", encoding="utf-8") as packed:
            return [hostile(json.loads(line)) for line in packed]

    def check_filters(self, samples):
        """By a click, by search and by the mouse along the time."""
        from selenium.webdriver import ActionChains
        states = sums_of(samples)["states"]
        self.browser.find_element("css selector", "#states button[data-state=Lock]").click()
        self.assertEqual(self.browser.execute_script(PAGE)["flame"], states.total() - states["Lock"])
        body = self.browser.find_element("tag name", "body")
        body.send_keys(ESCAPE)
        search = self.browser.find_element("id", "search")
        search.send_keys("demo-web</script>")
        wait_until("a search", lambda: self.browser.execute_script(PAGE)["flame"] == len(samples))
        search.send_keys(ESCAPE)
        band = self.browser.find_element("css selector", "#time .background")
        drag = ActionChains(self.browser).move_to_element(band).click_and_hold().move_by_offset(200, 0)
        drag.release().perform()
        page = self.browser.execute_script(PAGE)
        start, end = page["chosen"]
        self.assertLess(0, start)
        self.assertEqual(page["flame"], sum(map(len, samples[start:end])))

    def test_draws_and_filters_a_hostile_file(self):
        lines = self.record()
        samples = samples_of(lines)
        with open(f"{self.place}/hostile", "w", encoding="utf-8") as file:
            for line in lines[:-1]:
                print(json.dumps(line), file=file)
            print('{"type": "end", "deep": ' + "[" * 400000 + "]" * 400000 + "}", file=file)
            print('{"type": "sample", "time": -9223372036854775808, "unanswered": "x"}', file=file)
            file.write('{"type": "sample", "n": 99, "threads": [{"na')
        self.assertEqual(qorctl("report", file.name, "--out", f"{self.place}/report.html").err, "")
        self.browser.get(f"file://{self.place}/report.html")
        self.assertEqual(self.browser.get_log("browser"), [])
        unread, times = self.browser.execute_script("return [data.unread, data.t]")
        self.assertEqual((unread, times[len(samples):]), (2, times[len(samples) - 1:-1]))
        sums, page = sums_of(samples), self.browser.execute_script(PAGE)
        self.assertEqual({key: page[key] for key in sums}, sums)
        text = self.browser.find_element("tag name", "body").text
        for part in ("the file was cut", f"in {len(samples)} consecutive samples, at least",
                     "select id, total from orders", "/shop/cart" + MARKUP.split("\u2028")[0]):
            self.assertIn(part, text)
        heap = [line["heap"]["used_kib"] for line in lines if "heap" in line]
        self.assertEqual(page["heap"], [*heap, None])
        self.check_filters(samples)
        self.assertNotEqual(self.browser.title, "run")
        self.assertEqual(self.browser.find_elements("css selector", "img"), [])
        self.assertEqual(self.browser.get_log("browser"), [])
