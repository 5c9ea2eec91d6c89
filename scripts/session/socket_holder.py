#!/usr/bin/env python3
"""Plays systemd's part for the helper's socket unit where systemd is not PID 1.

  socket_holder.py SOCKET_UNIT SERVICE_UNIT LOG

Binds the socket unit's ListenStream with its SocketMode (and DirectoryMode for a folder it makes),
then, each time a connection waits and no helper runs, starts the service's ExecStart with the
listening socket as descriptor 3 and LISTEN_FDS=1, LISTEN_PID=its own pid, as systemd does for an
Accept=no socket. systemd-socket-activate cannot stand in: it execs into the program, so it covers
one start only, and it ignores SocketMode. Starts and exits are logged, one line each. SIGTERM stops
the helper (SIGTERM, as systemctl stop does), removes the socket (RemoveOnStop) and exits.
"""
import os
import select
import shlex
import signal
import socket
import sys
import time


def unit_values(path):
    values = {}
    for line in open(path):
        line = line.strip()
        if "=" in line and not line.startswith(("#", ";", "[")):
            key, value = line.split("=", 1)
            values[key.strip()] = value.strip()
    return values


def bind(socket_unit):
    path = socket_unit["ListenStream"]
    folder = os.path.dirname(path)
    if not os.path.isdir(folder):
        os.makedirs(folder)
        os.chmod(folder, int(socket_unit.get("DirectoryMode", "0755"), 8))
    if os.path.exists(path):
        os.unlink(path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    os.chmod(path, int(socket_unit.get("SocketMode", "0666"), 8))
    listener.listen(64)
    return path, listener


def start_helper(argv, listener):
    pid = os.fork()
    if pid == 0:
        fd = listener.fileno()
        if fd != 3:
            os.dup2(fd, 3)
        os.set_inheritable(3, True)
        env = dict(os.environ, LISTEN_FDS="1", LISTEN_PID=str(os.getpid()), LISTEN_FDNAMES="helper.sock")
        os.execve(argv[0], argv, env)
    return pid


def main():
    socket_unit = unit_values(sys.argv[1])
    argv = shlex.split(unit_values(sys.argv[2])["ExecStart"])
    log = open(sys.argv[3], "a", buffering=1)
    path, listener = bind(socket_unit)
    stopping = []
    signal.signal(signal.SIGTERM, lambda *_: stopping.append(True))
    helper = None
    log.write(f"listening {path} mode {oct(os.stat(path).st_mode & 0o7777)}\n")
    while not stopping:
        if helper is None:
            try:
                readable, _, _ = select.select([listener], [], [], 0.2)
            except InterruptedError:
                continue
            if readable:
                helper = start_helper(argv, listener)
                log.write(f"{time.monotonic():.3f} started {helper}\n")
            continue
        done, status = os.waitpid(helper, os.WNOHANG)
        if done:
            log.write(f"{time.monotonic():.3f} exited {helper} status {os.waitstatus_to_exitcode(status)}\n")
            helper = None
        else:
            time.sleep(0.05)
    if helper is not None:
        os.kill(helper, signal.SIGTERM)
        _, status = os.waitpid(helper, 0)
        log.write(f"{time.monotonic():.3f} stopped {helper} status {os.waitstatus_to_exitcode(status)}\n")
    listener.close()
    os.unlink(path)
    if not os.listdir(os.path.dirname(path)):
        os.rmdir(os.path.dirname(path))


if __name__ == "__main__":
    main()
