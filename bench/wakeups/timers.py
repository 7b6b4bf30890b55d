# Loaded into gdb by bench_wakeups: notes every QTimer that fires (QTimer::timerEvent), when,
# and who owns it, without calling into the program (only memory is read). report() prints
#   TIMER <address> fired=<n> every_ms=<median gap> <owner>
# The owner is the parent's class, or for a timer without parent the class of the nearest
# object with a vtable before it in memory: the object that holds the timer as a member.
import time

import gdb

hits = {}


def vtable_class(address):
    try:
        pointer = int(gdb.parse_and_eval("*(unsigned long *) %d" % address))
        text = gdb.execute("info symbol %d" % pointer, to_string=True)
    except gdb.error:
        return None
    if text.startswith("vtable for "):
        return text[len("vtable for "):].split(" + ")[0].split(" in section")[0].strip()
    return None


def owner_of(timer):
    # QObject: vptr, d_ptr; QObjectData: vptr, q_ptr, parent.
    parent = int(gdb.parse_and_eval("*(unsigned long *) (*(unsigned long *) (%d + 8) + 16)" % timer))
    if parent:
        return "parent " + (vtable_class(parent) or "?")
    for back in range(8, 1024, 8):
        name = vtable_class(timer - back)
        if name and name != "QTimer":
            return "member of " + name
    return "?"


class TimerBreak(gdb.Breakpoint):
    def stop(self):
        timer = int(gdb.parse_and_eval("$rdi"))
        entry = hits.setdefault(timer, [None, []])
        if entry[0] is None:
            entry[0] = owner_of(timer)
        entry[1].append(time.monotonic())
        return False


def report():
    for timer, (owner, times) in hits.items():
        gaps = sorted(b - a for a, b in zip(times, times[1:]))
        gap = "%.0f" % (gaps[len(gaps) // 2] * 1000) if gaps else "-"
        print("TIMER %#x fired=%d every_ms=%s %s" % (timer, len(times), gap, owner))


gdb.execute("set pagination off")
gdb.execute("set confirm off")
TimerBreak("QTimer::timerEvent")
