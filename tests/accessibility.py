"""What the accessibility bus tells of an update that fails and of one that succeeds. It presses the
buttons through that bus, too, as a person does who can't see the windows.

usage: accessibility.py SIMULATOR [ARGUMENT...], which starts the updater. Its QM5 is to be plugged
in by SIGUSR2, and to fall silent in the first update. Exits as the simulator does when all has been
told.
"""

import os
import re
import signal
import subprocess
import sys

import pyatspi
from gi.repository import GLib

PATIENCE = 60  # seconds, for the next thing to be told
CHANGING = re.compile("Elapsed|Updating firmware|Preparing the update …|Less than")


def press(name):
    def is_it(node):
        return node.getRoleName() == "push button" and node.name == name
    return lambda: pyatspi.findDescendant(window, is_it).queryAction().doAction(0)


def send(number):
    return lambda: simulator.send_signal(number)


def bar_has_moved():
    if len(set(values)) < 10 or max(values) < 0.95:
        fail(f"the bar was at {values}")
    press("Confirm & Exit")()


# What is told, in this order, and what happens then.
CAUTION = ("The updater can't keep the computer from going to sleep. See to it that it stays awake"
           " until the update is done.")
UPDATE = [
    ("says Preparing the update.", None),
    (f"says {CAUTION}", None),
    (f"""dialog Updating the QM5
label Do not unplug the QM5
progress bar Progress of the update
notification Preparing the update.
image Caution
notification {CAUTION}
push button Abort (Asks whether to end the program before the update is done)""", None),
    ("focus on dialog Updating the QM5", None),
    ("says Writing the new firmware.", None)]
TABLE = [
    ("""dialog QM5 Updater
image QM5
label Update the firmware of your QM5
label Connect your QM5 by USB, then press Next. Writing the new firmware can take several minutes.
label Until it is done, do not unplug the QM5 and do not let the computer sleep.
label Firmware version in this package: 4208
A development image: it is for the software QM5 alone.
label QM5 Updater 1.0.0
image Information
notification No QM5 is connected.
push button Next (Starts the update of the QM5)
push button Exit (Asks whether to end the program)""", None),
    ("focus on push button Next", send(signal.SIGUSR2)),
    ("says A QM5 is connected.", press("Next")),
    *UPDATE,
    ("says Waiting for the QM5 to respond.", send(signal.SIGUSR1)),
    ("says No QM5 is connected.", None),
    ("says The QM5 has been disconnected: without it, the update will end in an error message."
     " Connect it after that and press Next.", None),
    ("says Waiting for the update to end.", None),
    ("says The QM5 was disconnected during the update; it gave no reply to a block of the"
     " firmware.", None),
    ("""alert QM5 Updater
image Caution
label Flash firmware error
label Flash ti dmc firmware error, please try again.
push button OK""", None),
    ("focus on push button OK", press("OK")),
    ("focus on push button Next", send(signal.SIGUSR2)),
    ("says A QM5 is connected.", press("Next")),
    *[step for step in UPDATE if not step[0].startswith("dialog")],
    ("says The QM5 is checking the new firmware. This can take minutes.", None),
    ("""dialog Firmware update successful!
image QM5
label Firmware update successful!
label New version(QM5 v.4208)
Please power cycle your QM5 to apply
the new firmware.
push button Confirm & Exit""", None),
    ("focus on push button Confirm & Exit", bar_has_moved),
]

told = 0
windows = set()
values = []
focus = None
window = None
patience = None


def fail(why):
    print("accessibility:", why, file=sys.stderr)
    simulator.terminate()
    os._exit(1)


def await_more():
    global patience
    if patience:
        GLib.source_remove(patience)
    patience = GLib.timeout_add_seconds(PATIENCE, fail, f"not told: {TABLE[told][0]}")


def tell(line):
    global told
    expected, act = TABLE[told]
    if line != expected:
        fail(f"told: {line}\nin place of: {expected}")
    if act:
        act()
    told += 1
    if told == len(TABLE):
        os._exit(simulator.wait())
    await_more()


def parts_of(node):
    """What has a name, but for texts that change by themselves, and each button's description."""
    for child in node:
        if not child.getState().contains(pyatspi.STATE_SHOWING):
            continue
        if child.name and not CHANGING.match(child.name):
            purpose = f" ({child.description})" if child.description else ""
            yield f"{child.getRoleName()} {child.name}{purpose}"
        yield from parts_of(child)


def activated(event):
    global window, focus
    window, focus = event.source, None
    title = f"{window.getRoleName()} {window.name}"
    if title not in windows:
        windows.add(title)
        tell("\n".join([title, *parts_of(window)]))


def focused(event):
    global focus
    # The main window may have the keyboard for a moment, before the alert has it.
    if event.detail1 and event.source not in (focus, None) and event.source.name != "Details":
        focus = event.source
        tell(f"focus on {focus.getRoleName()} {focus.name}")


def says(text):
    """On a busy machine the text may have changed again when it is read here: then it has to be one
    that follows, or none any more."""
    expected = TABLE[told][0]
    if text in ("", "All has been sent.") and not expected.startswith("says "):
        return  # the last one may be too soon over to be told
    later = [line for line, _ in TABLE[told:told + 3]]
    tell(expected if not text or "says " + text in later else "says " + text)


def shown(event):
    if event.detail1 and event.source.getRole() == pyatspi.ROLE_NOTIFICATION:
        event.source.clear_cache()
        says(event.source.name)


def moved(event):
    value = event.source.queryValue()
    values.append(value.currentValue / value.maximumValue)


HANDLERS = {"window:activate": activated, "object:state-changed:focused": focused,
            "object:state-changed:showing": shown,
            "object:announcement": lambda event: says(event.any_data),
            "object:property-change:accessible-value": moved}
for kind, handle in HANDLERS.items():
    pyatspi.Registry.registerEventListener(handle, kind)
simulator = subprocess.Popen(sys.argv[1:], stderr=subprocess.STDOUT)
await_more()
pyatspi.Registry.start()
