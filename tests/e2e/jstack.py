"""A jstack -l text as values."""
import re
from dataclasses import dataclass, field

HEADER = re.compile(r'^"(?P<name>.*)" #(?P<id>\d+) ')
STATE = re.compile(r"^   java.lang.Thread.State: (?P<state>.*)$")
FRAME = re.compile(r"^\tat (?P<call>.*)\((?P<place>[^()]*)\)$")
LOCK = re.compile(r"^\t- (?P<how>locked|waiting (?:to lock|on|to re-lock in wait\(\))|parking to wait for) +"
                  r"<(?P<address>\w+)> \(an? (?P<class>.*)\)$")
SYNCHRONIZER = re.compile(r"^\t- <(?P<address>\w+)> \(an? (?P<class>.*)\)$")
MODULE = re.compile(r"^[a-z][\w.]*@[^/]+/")


@dataclass
class Frame:
    call: str  # class.method
    file: str
    line: int  # None when unknown


@dataclass
class Lock:
    address: str
    class_name: str
    depth: int


@dataclass
class Thread:
    id: int
    name: str
    state: str = ""
    frames: list = field(default_factory=list)
    locked: list = field(default_factory=list)
    synchronizers: list = field(default_factory=list)
    released: set = field(default_factory=set)  # addresses of monitors given up in Object.wait
    wanted: Lock = None

    def held(self):
        """Monitors that it holds: a frame's mark stays while the thread waits on the monitor."""
        return [lock for lock in self.locked if lock.address not in self.released]

    def holds(self, lock):
        return lock.address in [held.address for held in self.held()] + self.synchronizers


def parse_frame(call, place):
    file, _, line = MODULE.sub("", place).partition(":")
    call = MODULE.sub("", call).replace("/0x", ".0x")  # the name of a hidden class
    return Frame(call, file, int(line) if line else None)


def parse(text):
    threads = []
    for line in text.splitlines():
        if match := HEADER.match(line):
            threads.append(Thread(int(match["id"]), match["name"]))
        elif not line.startswith((" ", "\t")) or not threads:
            if line:
                threads.append(Thread(0, ""))  # a thread of the JVM's own, or another part of the text
        elif match := STATE.match(line):
            threads[-1].state = match["state"]
        elif match := FRAME.match(line):
            threads[-1].frames.append(parse_frame(match["call"], match["place"]))
        elif match := LOCK.match(line):
            add_lock(threads[-1], match)
        elif match := SYNCHRONIZER.match(line):
            threads[-1].synchronizers.append(match["address"])
    return [thread for thread in threads if thread.id]


def add_lock(thread, match):
    lock = Lock(match["address"], match["class"], len(thread.frames) - 1)
    if match["how"] == "locked":
        thread.locked.append(lock)
    elif match["how"] == "waiting on":
        thread.released.add(lock.address)
    elif match["how"] == "waiting to lock" or match["how"] == "parking to wait for":
        thread.wanted = lock
