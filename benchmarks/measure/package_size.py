"""The size of the program and the packages."""

import glob
import os
import re
import subprocess

from programs import ROOT, UPDATER, output, work
from report import row


def size():
    group = "7. Size"
    stripped = os.path.join(work, "stripped")
    subprocess.run(["strip", "-o", stripped, UPDATER], check=True)
    row(group, "stripped program", f"{os.path.getsize(stripped) / 1024:.0f} KiB")
    for package in sorted(glob.glob(os.path.join(ROOT, "build/package/*.deb"))):
        row(group, os.path.basename(package), f"{os.path.getsize(package) / 1024:.0f} KiB")
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-d", UPDATER))
    row(group, "shared libraries that it names", f"{len(needed)}: " + ", ".join(needed))
    unused = output("sh", "-c", 'ldd -u "$1" || true', "sh", UPDATER).split()[3:]
    row(group, "of these, not used", ", ".join(unused) or "none", "none", not unused)
    row(group, "shared libraries linked in all, theirs too",
        str(len([line for line in output("ldd", UPDATER).splitlines() if "/" in line])))
