#!/usr/bin/env python3
"""A stand-in for systemd-logind's Manager on the session test's private system bus.

Used when the real systemd-logind cannot suspend this machine (a VM whose /sys/power/state is
empty never emits PrepareForSleep). It answers what Pelmora asks logind for:
  Inhibit(what, who, why, mode) -> h   a real descriptor: the write end of a pipe, so the
                                       inhibitor is released exactly when every copy of it closes
  ListInhibitors() -> a(ssssuu)
and emits PrepareForSleep(b) the way logind does: true, then up to InhibitDelayMaxSec (5 s) for the
delay inhibitors to close, then false. A sleep is asked for with SIGUSR1 (the test driver is root
and outside the bus policy's reach); every event is one line in the log file named by argv[1].
"""
import os
import signal
import sys
import time

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

BUS_NAME = "org.freedesktop.login1"
PATH = "/org/freedesktop/login1"
IFACE = "org.freedesktop.login1.Manager"
INHIBIT_DELAY_MAX_S = 5


class Inhibitor:
    def __init__(self, what, who, why, mode, uid, pid, read_fd):
        self.what, self.who, self.why, self.mode = what, who, why, mode
        self.uid, self.pid, self.read_fd = uid, pid, read_fd


class Manager(dbus.service.Object):
    def __init__(self, bus, log_path):
        super().__init__(bus, PATH)
        self.bus = bus
        self.log = open(log_path, "a", buffering=1)
        self.inhibitors = []
        self.sleeping = False

    def note(self, text):
        self.log.write(f"{time.monotonic():.3f} {text}\n")

    def caller(self, sender):
        dbus_iface = dbus.Interface(self.bus.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus"),
                                    "org.freedesktop.DBus")
        return int(dbus_iface.GetConnectionUnixUser(sender)), int(dbus_iface.GetConnectionUnixProcessID(sender))

    @dbus.service.method(IFACE, in_signature="ssss", out_signature="h", sender_keyword="sender")
    def Inhibit(self, what, who, why, mode, sender=None):
        if mode not in ("block", "delay"):
            raise dbus.exceptions.DBusException("mode must be block or delay",
                                                name="org.freedesktop.DBus.Error.InvalidArgs")
        uid, pid = self.caller(sender)
        read_fd, write_fd = os.pipe2(os.O_CLOEXEC)
        inhibitor = Inhibitor(str(what), str(who), str(why), str(mode), uid, pid, read_fd)
        self.inhibitors.append(inhibitor)
        GLib.unix_fd_add_full(GLib.PRIORITY_DEFAULT, read_fd, GLib.IOCondition.HUP | GLib.IOCondition.ERR,
                              self.released, inhibitor)
        self.note(f"inhibit taken who={who} what={what} mode={mode} uid={uid} pid={pid}")
        reply = dbus.types.UnixFd(write_fd)
        os.close(write_fd)  # the reply holds its own duplicate
        return reply

    def released(self, fd, condition, inhibitor):
        os.close(fd)
        self.inhibitors.remove(inhibitor)
        self.note(f"inhibit released who={inhibitor.who} pid={inhibitor.pid}")
        return False

    @dbus.service.method(IFACE, in_signature="", out_signature="a(ssssuu)")
    def ListInhibitors(self):
        return dbus.Array([dbus.Struct((i.what, i.who, i.why, i.mode, dbus.UInt32(i.uid), dbus.UInt32(i.pid)))
                           for i in self.inhibitors], signature="(ssssuu)")

    @dbus.service.signal(IFACE, signature="b")
    def PrepareForSleep(self, start):
        self.note(f"PrepareForSleep {bool(start)}")

    def sleep_delay_holders(self):
        return [i for i in self.inhibitors if i.mode == "delay" and "sleep" in i.what.split(":")]

    def suspend(self):
        if self.sleeping:
            return
        self.sleeping = True
        self.PrepareForSleep(True)
        deadline = time.monotonic() + INHIBIT_DELAY_MAX_S

        def wait_for_delays():
            holders = self.sleep_delay_holders()
            if holders and time.monotonic() < deadline:
                return True
            self.note("sleep " + ("after the delay ran out: " + ",".join(i.who for i in holders)
                                  if holders else "with no delay inhibitor left"))
            GLib.timeout_add(500, self.wake)
            return False

        GLib.timeout_add(50, wait_for_delays)

    def wake(self):
        self.sleeping = False
        self.PrepareForSleep(False)
        return False


def main():
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    manager = Manager(bus, sys.argv[1])
    name = dbus.service.BusName(BUS_NAME, bus, do_not_queue=True)
    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGUSR1, lambda: manager.suspend() or True)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: loop.quit() or False)
    manager.note(f"serving {name.get_name()}")
    loop.run()


if __name__ == "__main__":
    main()
