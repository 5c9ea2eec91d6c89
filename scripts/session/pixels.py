#!/usr/bin/env python3
"""Reads a screenshot back by its pixels.

  pixels.py count IMAGE RRGGBB [--tolerance T] [--box X,Y,W,H]   how many pixels have that colour
  pixels.py find IMAGE RRGGBB [--tolerance T] [--box X,Y,W,H]    "X Y" of the centre of those pixels

A pixel matches when each channel is within T (default 24) of the colour. The image is read through
ImageMagick's convert as a binary PPM, so any format it knows will do.
"""
import argparse
import subprocess
import sys


def read_ppm(path):
    data = subprocess.run(["convert", path, "ppm:-"], check=True, capture_output=True).stdout
    fields, pos = [], 0
    while len(fields) < 4:  # magic, width, height, maximum, separated by whitespace
        while data[pos:pos + 1].isspace():
            pos += 1
        start = pos
        while not data[pos:pos + 1].isspace():
            pos += 1
        fields.append(data[start:pos])
    width, height = int(fields[1]), int(fields[2])
    return width, height, data[pos + 1:]


def matching(path, colour, tolerance, box):
    width, height, pixels = read_ppm(path)
    want = [int(colour[i:i + 2], 16) for i in (0, 2, 4)]
    x0, y0, w, h = box if box else (0, 0, width, height)
    for y in range(max(0, y0), min(height, y0 + h)):
        row = y * width * 3
        for x in range(max(0, x0), min(width, x0 + w)):
            i = row + x * 3
            if all(abs(pixels[i + c] - want[c]) <= tolerance for c in range(3)):
                yield x, y


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("command", choices=["count", "find"])
    parser.add_argument("image")
    parser.add_argument("colour")
    parser.add_argument("--tolerance", type=int, default=24)
    parser.add_argument("--box")
    a = parser.parse_args()
    box = tuple(int(v) for v in a.box.split(",")) if a.box else None
    found = list(matching(a.image, a.colour.lstrip("#"), a.tolerance, box))
    if a.command == "count":
        print(len(found))
    elif not found:
        sys.exit(f"pixels: no #{a.colour} in {a.image}")
    else:
        print(sum(x for x, _ in found) // len(found), sum(y for _, y in found) // len(found))


if __name__ == "__main__":
    main()
