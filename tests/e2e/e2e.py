#!/usr/bin/env python3
"""The console and the agent, end to end: applications in JVMs of their own, driven through qorctl.

usage: e2e.py --build DIR --jdk DIR [GROUP...]     e.g.  e2e.py --build build/release --jdk $JAVA_HOME Sample
A JDK of another root directory is given by --root DIR, the command that enters it, and its path in there:
       e2e.py --build DIR --root /srv/sid --enter "tool run /srv/sid" --jdk /usr/lib/jvm/java-8-openjdk-amd64
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from harness import SETTINGS, in_root
from containers import Containers
from databases import Databases
from direct import DirectHeap, DirectRoad
from dumps import Dumps, LateDumps
from hung import Hung
from life import Life, Refusals, Users
from metrics import Metrics
from record import Record
from report import Report
from sample import Sample
from tiers import OwnDriver, Tiers
from top import Top
from views import Memory, Views
from virtual import Virtual
from virtual_groups import VirtualGroups
from web import Web

__all__ = ["Containers", "Databases", "DirectHeap", "DirectRoad", "Dumps", "Hung", "LateDumps", "Life",
           "Memory", "Metrics", "OwnDriver", "Record", "Refusals", "Report", "Sample", "Tiers", "Top",
           "Users", "Views", "Virtual", "VirtualGroups", "Web"]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--jdk", required=True)
    parser.add_argument("--root", default="")
    parser.add_argument("--enter", default="")
    parser.add_argument("groups", nargs="*")
    parser.parse_args(namespace=SETTINGS)
    # Where every user can read it, and where the JVM's root directory has it.
    with tempfile.TemporaryDirectory(prefix="qor-e2e-", dir=SETTINGS.root + "/tmp") as place:
        os.chmod(place, 0o755)
        inside = place[len(SETTINGS.root):]
        shutil.copy(f"{SETTINGS.build}/qoragent.jar", place)
        shutil.copy(f"{SETTINGS.build}/qorctl", place)
        shutil.copytree(f"{SETTINGS.build}/demo-classes", f"{place}/classes")
        SETTINGS.jar, SETTINGS.classes = inside + "/qoragent.jar", inside + "/classes"
        SETTINGS.qorctl = place + "/qorctl"
        version = subprocess.run(in_root([f"{SETTINGS.jdk}/bin/java", "-version"]), capture_output=True,
                                 text=True,
                                 check=True).stderr
        SETTINGS.version = int(re.search(r'version "(?:1\.)?(\d+)', version).group(1))
        done = unittest.main(argv=[sys.argv[0], *SETTINGS.groups], verbosity=2, exit=False)
    sys.exit(not done.result.wasSuccessful())


if __name__ == "__main__":
    main()
