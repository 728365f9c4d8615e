#!/usr/bin/env python3
"""Draws the images of the web administration (web/help.png, web/searchnow.png)
with nothing but the standard library, so that they can be remade or recoloured
without an image editor. Shapes are distance functions sampled 4x4 per pixel.

    scripts/web_images.py [WEB_DIR]     (default: the web/ folder beside scripts/)
"""
import math
import os
import struct
import sys
import zlib

ACCENT = (0x1D, 0x5F, 0xB8)
WHITE = (0xFF, 0xFF, 0xFF)
SAMPLES = 4

# 5x7 capitals for the button's word.
GLYPHS = {
    "S": [".####", "#....", "#....", ".###.", "....#", "....#", "####."],
    "E": ["#####", "#....", "#....", "####.", "#....", "#....", "#####"],
    "A": [".###.", "#...#", "#...#", "#####", "#...#", "#...#", "#...#"],
    "R": ["####.", "#...#", "#...#", "####.", "#.#..", "#..#.", "#...#"],
    "C": [".###.", "#...#", "#....", "#....", "#....", "#...#", ".###."],
    "H": ["#...#", "#...#", "#...#", "#####", "#...#", "#...#", "#...#"],
}


def png(width, height, pixels):
    """PNG bytes of RGBA rows (`pixels[y][x]` = (r, g, b, a))."""
    raw = b"".join(b"\x00" + bytes(c for px in row for c in px) for row in pixels)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def capsule(px, py, ax, ay, bx, by, r):
    """Distance from (px, py) to a segment a-b thickened by r (negative inside)."""
    dx, dy = bx - ax, by - ay
    t = 0.0 if dx == dy == 0 else max(0.0, min(1.0, ((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy)))
    return math.hypot(px - ax - t * dx, py - ay - t * dy) - r


def rounded_rect(px, py, w, h, r):
    qx = abs(px - w / 2) - (w / 2 - r)
    qy = abs(py - h / 2) - (h / 2 - r)
    return math.hypot(max(qx, 0), max(qy, 0)) + min(max(qx, qy), 0) - r


def render(width, height, layers):
    """`layers`: (colour, inside(x, y) -> bool) painted in order over transparency."""
    rows = []
    for y in range(height):
        row = []
        for x in range(width):
            acc = [0.0, 0.0, 0.0, 0.0]  # premultiplied
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    fx, fy = x + (sx + 0.5) / SAMPLES, y + (sy + 0.5) / SAMPLES
                    colour = None
                    for c, inside in layers:
                        if inside(fx, fy):
                            colour = c
                    if colour:
                        acc[0] += colour[0]
                        acc[1] += colour[1]
                        acc[2] += colour[2]
                        acc[3] += 1
            n = SAMPLES * SAMPLES
            a = acc[3] / n
            if acc[3]:
                row.append(tuple(round(acc[i] / acc[3]) for i in range(3)) + (round(a * 255),))
            else:
                row.append((0, 0, 0, 0))
        rows.append(row)
    return png(width, height, rows)


def help_icon():
    """A question mark in a disc, 40 px (shown at 20)."""
    cx, cy = 20.0, 15.0
    r, half = 6.5, 2.2
    end = math.radians(-50)
    ex, ey = cx + r * math.cos(end), cy - r * math.sin(end)
    start = math.radians(160)
    sx, sy = cx + r * math.cos(start), cy - r * math.sin(start)

    def mark(x, y):
        ang = math.degrees(math.atan2(-(y - cy), x - cx))
        if -50 <= ang <= 160 and abs(math.hypot(x - cx, y - cy) - r) <= half:
            return True
        return (math.hypot(x - sx, y - sy) <= half or capsule(x, y, ex, ey, 20, 23, half) <= 0
                or capsule(x, y, 20, 23, 20, 25, half) <= 0 or math.hypot(x - 20, y - 30.5) <= 2.5)

    return render(40, 40, [(ACCENT, lambda x, y: math.hypot(x - 20, y - 20) <= 19), (WHITE, mark)])


def search_button():
    """A magnifier and the word SEARCH on a rounded button, 256x64 (shown at 128x32)."""
    w, h, scale = 256, 64, 4
    k = h / 48  # the magnifier is drawn on a 48-pixel grid
    text = "SEARCH"
    text_w = len(text) * 5 * scale + (len(text) - 1) * scale
    left = 50 * k + (w - 50 * k - 12 * k - text_w) / 2
    top = (h - 7 * scale) / 2

    def letters(x, y):
        col, row = int((x - left) // scale), int((y - top) // scale)
        if x < left or y < top or row >= 7:
            return False
        idx, off = divmod(col, 6)
        return idx < len(text) and off < 5 and GLYPHS[text[idx]][row][off] == "#"

    def magnifier(x, y):
        x, y = x / k, y / k
        return abs(math.hypot(x - 24, y - 21) - 9) <= 2.2 or capsule(x, y, 31, 28, 38, 35, 2.6) <= 0

    return render(w, h, [(ACCENT, lambda x, y: rounded_rect(x, y, w, h, 8 * k) <= 0), (WHITE, magnifier), (WHITE, letters)])


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "web"))
    for name, data in (("help.png", help_icon()), ("searchnow.png", search_button())):
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        print("wrote %s (%d bytes)" % (os.path.join(out, name), len(data)))


if __name__ == "__main__":
    main()
