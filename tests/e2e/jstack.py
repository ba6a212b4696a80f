"""A jstack -l text as values."""
import re
from collections import namedtuple

HEADER = re.compile(r'^"(?P<name>.*)" #(?P<id>\d+) ')
FRAME = re.compile(r"^\tat (?P<call>.*)\((?P<place>[^()]*)\)$")
MODULE = re.compile(r"^[a-z][\w.]*@[^/]+/")
Frame = namedtuple("Frame", "call file line")  # class.method; the line is None when unknown
Thread = namedtuple("Thread", "id name frames")


def parse_frame(call, place):
    file, _, line = MODULE.sub("", place).partition(":")
    call = MODULE.sub("", call).replace("/0x", ".0x")  # the name of a hidden class
    return Frame(call, file, int(line) if line else None)


def parse(text):
    threads = []
    for line in text.splitlines():
        if match := HEADER.match(line):
            threads.append(Thread(int(match["id"]), match["name"], []))
        elif not line.startswith((" ", "\t")) or not threads:
            if line:
                threads.append(Thread(0, "", []))  # a thread of the JVM's own, or another part of the text
        elif match := FRAME.match(line):
            threads[-1].frames.append(parse_frame(match["call"], match["place"]))
    return [thread for thread in threads if thread.id]
