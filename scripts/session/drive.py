#!/usr/bin/env python3
"""Finds Pelmora's widgets through the accessibility tree (AT-SPI) and acts on them with real X
input events (xdotool), as a user's mouse and keyboard would. Run as the desktop user, with that
user's session bus (where the accessibility bus is announced) and DISPLAY.

  drive.py click ROLE NAME [--index N] [--button B] [--timeout S]   click the widget's centre
  drive.py wait ROLE NAME [--timeout S]                             wait until it shows
  drive.py gone ROLE NAME [--timeout S]                             wait until it no longer shows
  drive.py where ROLE NAME                                          print "x y width height"
  drive.py names ROLE [--under ROLE:NAME]                           print the visible names, one a line
  drive.py dump                                                     print the whole tree

--under ROLE:NAME keeps widgets inside that one; --row ROLE:NAME keeps those right of that label.
NAME matches the accessible name exactly, or, written *TEXT*, any name containing TEXT. ROLE is
AT-SPI's role name ("push button", "menu item", "table cell", ...), or "*" for any. Only widgets
with a non-empty area on the screen count as shown.
"""
import argparse
import subprocess
import sys
import time

import pyatspi


def extents(node):
    try:
        e = node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
        return e.x, e.y, e.width, e.height
    except Exception:
        return 0, 0, 0, 0


def shown(node):
    x, y, w, h = extents(node)
    if w <= 0 or h <= 0 or x < 0 or y < 0:
        return False
    try:
        return node.getState().contains(pyatspi.STATE_SHOWING)
    except Exception:
        return False


def role_of(node):
    try:
        return node.getRoleName()
    except Exception:  # the widget went away while we looked
        return ""


def name_of(node):
    try:
        return node.name or ""
    except Exception:
        return ""


def matches(node, role, name):
    if role != "*" and role_of(node) != role:
        return False
    label = name_of(node)
    if name.startswith("*") and name.endswith("*") and len(name) > 1:
        return name[1:-1] in label
    return label == name


# Roles whose children are the cells of a table or list: thousands of them in the process window,
# each a round trip on the accessibility bus, so a search for anything else does not go in.
CONTAINERS = {"table", "tree table", "tree", "list", "list box"}
CELLS = {"table cell", "column header", "row header", "list item", "tree item", "table row"}


def walk(node, depth=0, cells=True, top=None):
    """Yields (node, depth, its window): the window is the node's ancestor one below the application."""
    if node is None or depth > 30:
        return
    if depth == 1:
        top = node
    yield node, depth, top
    if not cells and role_of(node) in CONTAINERS:
        return
    # A window that is not showing (closed, not yet mapped) has nothing shown inside it.
    if depth == 1 and not cells and not showing(node):
        return
    try:
        children = list(node)
    except Exception:
        children = []
    for child in children:
        yield from walk(child, depth + 1, cells, top)


def showing(node):
    try:
        return node.getState().contains(pyatspi.STATE_SHOWING)
    except Exception:
        return False


def pelmora_roots():
    desktop = pyatspi.Registry.getDesktop(0)
    return [app for app in desktop if app is not None and app.name == "Pelmora"]


def find_all(role, name, under=None, row=None):
    found = find_in_windows(role, name, under, row)
    return [node for node, _ in found]


def find_in_windows(role, name, under=None, row=None):
    """[(node, its window)] for every shown widget that matches."""
    found = []
    cells = role in CELLS
    for root in pelmora_roots():
        for node, _, top in walk(root, cells=cells):
            if matches(node, role, name) and shown(node):
                found.append((node, top))
    if under:
        urole, uname = under.split(":", 1)
        parents = find_all(urole, uname)
        found = [(n, t) for n, t in found if any(inside(n, p) for p in parents)]
    if row:
        lrole, lname = row.split(":", 1)
        labels = find_all(lrole, lname)
        found = [(n, t) for n, t in found if any(same_row(n, label) for label in labels)]
    return found


def same_row(node, label):
    """node sits to the right of label, on the same line: how a form pairs a field with its label."""
    x, y, w, h = extents(node)
    lx, ly, lw, lh = extents(label)
    return x >= lx + lw and y < ly + lh and ly < y + h


def inside(node, parent):
    x, y, w, h = extents(node)
    px, py, pw, ph = extents(parent)
    return px <= x and py <= y and x + w <= px + pw and y + h <= py + ph


def wait_for(role, name, timeout, index=0, under=None, row=None, window=False):
    """The widget, or with window=True (the widget, its window)."""
    deadline = time.monotonic() + timeout
    while True:
        found = find_in_windows(role, name, under, row)
        if len(found) > index:
            return found[index] if window else found[index][0]
        if time.monotonic() > deadline:
            sys.exit(f"drive: no shown {role} '{name}' within {timeout} s")
        time.sleep(0.3)


def xdotool(*args):
    subprocess.run(["xdotool", *map(str, args)], check=True)


def in_popup(node):
    """A menu's items lie in a popup on top of everything; activating their window would close it."""
    try:
        return role_of(node.parent) in ("menu", "popup menu")
    except Exception:
        return False


def bring_forward(window):
    """Activates the X window titled as the widget's window: the accessibility tree calls a widget
    showing when another window covers it, and a click there would land on the other window.
    Menus and other untitled popups are left alone (they are on top already)."""
    title = name_of(window)
    if not title or role_of(window) in ("menu", "popup menu", "tool tip"):
        return
    pattern = "^" + "".join("\\" + c if c in ".^$*+?()[]{}|\\" else c for c in title) + "$"  # POSIX ERE
    try:
        ids = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", pattern], capture_output=True,
                             text=True, timeout=5).stdout.split()
        if ids:
            subprocess.run(["xdotool", "windowactivate", "--sync", ids[-1]], timeout=5, capture_output=True)
            time.sleep(0.2)
    except subprocess.TimeoutExpired:
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("command")
    parser.add_argument("role", nargs="?", default="*")
    parser.add_argument("name", nargs="?", default="")
    parser.add_argument("--index", type=int, default=0)
    parser.add_argument("--button", type=int, default=1)
    parser.add_argument("--timeout", type=float, default=15)
    parser.add_argument("--under", help="ROLE:NAME of a widget the one sought lies inside")
    parser.add_argument("--row", help="ROLE:NAME of the label the one sought stands right of")
    a = parser.parse_args()
    if a.command == "dump":
        for root in pelmora_roots():
            for node, depth, _ in walk(root):
                x, y, w, h = extents(node)
                print("  " * depth + f"[{role_of(node)}] '{name_of(node)}' {x},{y} {w}x{h}")
    elif a.command == "names":
        for node in find_all(a.role, a.name or "**", a.under, a.row):
            print(name_of(node))
    elif a.command == "wait":
        wait_for(a.role, a.name, a.timeout, a.index, a.under, a.row)
    elif a.command == "gone":
        deadline = time.monotonic() + a.timeout
        while find_all(a.role, a.name, a.under, a.row):
            if time.monotonic() > deadline:
                sys.exit(f"drive: {a.role} '{a.name}' still shown after {a.timeout} s")
            time.sleep(0.3)
    elif a.command == "where":
        print(*extents(wait_for(a.role, a.name, a.timeout, a.index, a.under, a.row)))
    elif a.command == "click":
        node, window = wait_for(a.role, a.name, a.timeout, a.index, a.under, a.row, window=True)
        if not in_popup(node):
            bring_forward(window)
        x, y, w, h = extents(node)
        xdotool("mousemove", "--sync", x + w // 2, y + h // 2)
        time.sleep(0.1)
        xdotool("click", a.button)
    else:
        sys.exit(f"drive: unknown command {a.command}")


if __name__ == "__main__":
    main()
