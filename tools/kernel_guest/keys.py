"""The keys of a computer's case, and its lid: presses those that standard input names."""
import sys

from evdev import UInput, ecodes

KEYS = {"power": ecodes.KEY_POWER, "sleep": ecodes.KEY_SLEEP}

with UInput(
    {ecodes.EV_KEY: list(KEYS.values()), ecodes.EV_SW: [ecodes.SW_LID]}, name="QM5 case"
) as case:
    for line in sys.stdin:
        name = line.strip()
        for value in (1, 0):
            if name in KEYS:
                case.write(ecodes.EV_KEY, KEYS[name], value)
            else:
                case.write(ecodes.EV_SW, ecodes.SW_LID, value)
            case.syn()
