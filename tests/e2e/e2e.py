#!/usr/bin/env python3
"""The console and the agent, end to end: applications in JVMs of their own, driven through qorctl.

usage: e2e.py --build DIR --jdk DIR [GROUP...]    e.g. --build build/release --jdk $JAVA_HOME sample.Sample
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

from harness import FOLDER, SETTINGS, in_root


def main():
    parser = argparse.ArgumentParser()
    for name in ("build", "jdk", "root", "enter"):
        parser.add_argument("--" + name, default="")
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
        version = subprocess.run(in_root([f"{SETTINGS.jdk}/bin/java", "-version"]), stderr=subprocess.PIPE,
                                 text=True, check=True).stderr
        SETTINGS.version = int(re.search(r'version "(?:1\.)?(\d+)', version)[1])
        groups = SETTINGS.groups or [name[:-3] for name in os.listdir(FOLDER) if name.endswith(".py")]
        done = unittest.main(None, argv=[sys.argv[0], *groups], verbosity=2, exit=False)
    sys.exit(not done.result.wasSuccessful())


if __name__ == "__main__":
    main()
