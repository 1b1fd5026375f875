#!/usr/bin/env python3
"""Draws the Corvane authenticator logo and embeds it in the library.

The logo is 100 by 35 pixels, 8-bit RGBA on a transparent background: a blue rounded square
holding a white keyhole, then the word "Corvane" in a geometric lower-case face whose letters are
built from strokes (lines and circular arcs with round caps). Every shape is a distance field, so
edges are anti-aliased by their distance to the pixel centre.

Writes, relative to the repository root:
  resources/authenticator_logo.png        the picture
  src/authenticator/authenticator_icon.cpp the "data:image/png;base64,..." URL as a C++ literal

Usage: python3 resources/make_logo.py   (standard library only; the output is deterministic)
"""

import base64
import math
import pathlib
import struct
import zlib

WIDTH, HEIGHT = 100, 35
ROOT = pathlib.Path(__file__).resolve().parent.parent

MARK_BLUE = (0x1F, 0x4E, 0x79)
MARK_LIGHT = (0xFF, 0xFF, 0xFF)
TEXT_DARK = (0x1E, 0x29, 0x3B)
TEXT_BLUE = (0x1F, 0x4E, 0x79)


# ----- distance fields (negative inside) -----


def segment(ax, ay, bx, by, width):
    def sd(px, py):
        dx, dy = bx - ax, by - ay
        length2 = dx * dx + dy * dy
        t = 0.0 if length2 == 0 else max(0.0, min(1.0, ((px - ax) * dx + (py - ay) * dy) / length2))
        return math.hypot(px - (ax + t * dx), py - (ay + t * dy)) - width / 2

    return sd


def arc(cx, cy, r, start, end, width):
    """Arc of a circle, angles in degrees counter-clockwise from +x with y pointing up."""

    def inside(angle):
        a = (angle - start) % 360.0
        return a <= (end - start) % 360.0 or end - start >= 360.0

    def sd(px, py):
        angle = math.degrees(math.atan2(-(py - cy), px - cx)) % 360.0
        if inside(angle):
            return abs(math.hypot(px - cx, py - cy) - r) - width / 2
        best = float("inf")
        for a in (start, end):
            ex = cx + r * math.cos(math.radians(a))
            ey = cy - r * math.sin(math.radians(a))
            best = min(best, math.hypot(px - ex, py - ey))
        return best - width / 2

    return sd


def disc(cx, cy, r):
    return lambda px, py: math.hypot(px - cx, py - cy) - r


def rounded_rect(x0, y0, x1, y1, radius):
    cx, cy = (x0 + x1) / 2, (y0 + y1) / 2
    hx, hy = (x1 - x0) / 2 - radius, (y1 - y0) / 2 - radius

    def sd(px, py):
        qx, qy = abs(px - cx) - hx, abs(py - cy) - hy
        outside = math.hypot(max(qx, 0.0), max(qy, 0.0))
        return outside + min(max(qx, qy), 0.0) - radius

    return sd


def trapezoid(cx, top, bottom, half_top, half_bottom):
    """Symmetric about x = cx, narrow at the top: the stem of the keyhole."""

    def sd(px, py):
        t = (py - top) / (bottom - top)
        half = half_top + (half_bottom - half_top) * max(0.0, min(1.0, t))
        slope = math.hypot(1.0, (half_bottom - half_top) / (bottom - top))
        side = (abs(px - cx) - half) / slope
        return max(side, top - py, py - bottom)

    return sd


def union(*shapes):
    return lambda px, py: min(s(px, py) for s in shapes)


# ----- the letters -----

STROKE = 1.8
BASELINE = 23.6
X_HEIGHT = 8.6  # outer height of the lower-case letters
CAP_HEIGHT = 12.2
BOWL = X_HEIGHT / 2 - STROKE / 2  # centre-line radius of o, a, e
SHOULDER = 0.31 * X_HEIGHT  # radius of the arches of r and n
GAP = 1.0  # blank between neighbouring letters


def letter_c(x):
    r = CAP_HEIGHT / 2 - STROKE / 2
    cx = x + STROKE / 2 + r * 0.92
    cy = BASELINE - CAP_HEIGHT / 2
    shape = arc(cx, cy, r, 48, 312, STROKE)
    return shape, cx + r * math.cos(math.radians(48)) + STROKE / 2


def letter_o(x):
    cx = x + STROKE / 2 + BOWL
    return arc(cx, BASELINE - X_HEIGHT / 2, BOWL, 0, 360, STROKE), x + STROKE + 2 * BOWL


def letter_r(x):
    top = BASELINE - X_HEIGHT + STROKE / 2
    stem_x = x + STROKE / 2
    ra = SHOULDER
    shape = union(
        segment(stem_x, top, stem_x, BASELINE - STROKE / 2, STROKE),
        arc(stem_x + ra, top + ra, ra, 90, 180, STROKE),
        segment(stem_x + ra, top, stem_x + ra + 0.9, top, STROKE),
    )
    return shape, stem_x + ra + 0.9 + STROKE / 2


def letter_v(x):
    top = BASELINE - X_HEIGHT + STROKE / 2
    half = 0.36 * X_HEIGHT
    left = x + STROKE / 2
    bottom = BASELINE - STROKE / 2
    shape = union(
        segment(left, top, left + half, bottom, STROKE),
        segment(left + half, bottom, left + 2 * half, top, STROKE),
    )
    return shape, left + 2 * half + STROKE / 2


def letter_a(x):
    cx = x + STROKE / 2 + BOWL
    cy = BASELINE - X_HEIGHT / 2
    stem_x = cx + BOWL
    shape = union(
        arc(cx, cy, BOWL, 0, 360, STROKE),
        segment(stem_x, BASELINE - X_HEIGHT + STROKE / 2, stem_x, BASELINE - STROKE / 2, STROKE),
    )
    return shape, stem_x + STROKE / 2


def letter_n(x):
    top = BASELINE - X_HEIGHT + STROKE / 2
    bottom = BASELINE - STROKE / 2
    left = x + STROKE / 2
    r = SHOULDER
    shape = union(
        segment(left, top, left, bottom, STROKE),
        arc(left + r, top + r, r, 0, 180, STROKE),
        segment(left + 2 * r, top + r, left + 2 * r, bottom, STROKE),
    )
    return shape, left + 2 * r + STROKE / 2


def letter_e(x):
    cx = x + STROKE / 2 + BOWL
    cy = BASELINE - X_HEIGHT / 2
    shape = union(
        arc(cx, cy, BOWL, 0, 318, STROKE),
        segment(cx - BOWL, cy, cx + BOWL, cy, STROKE * 0.9),
    )
    return shape, x + STROKE + 2 * BOWL


WORD = [(letter_c, TEXT_DARK), (letter_o, TEXT_DARK), (letter_r, TEXT_DARK),
        (letter_v, TEXT_BLUE), (letter_a, TEXT_BLUE), (letter_n, TEXT_BLUE),
        (letter_e, TEXT_BLUE)]


def layers():
    """The shapes in painting order, each with its colour."""
    result = [
        (rounded_rect(1.5, 1.5, 33.5, 33.5, 7.0), MARK_BLUE),
        (union(disc(17.5, 13.8, 4.5), trapezoid(17.5, 14.8, 26.2, 1.6, 3.5)), MARK_LIGHT),
    ]
    # Measure the word, then centre it in the space right of the mark.
    x = 0.0
    for make, _ in WORD:
        x = make(x)[1] + GAP
    word_width = x - GAP
    left, right = 36.0, WIDTH - 0.5
    if word_width > right - left:
        raise SystemExit(f"word too wide: {word_width:.1f} pixels")
    x = left + (right - left - word_width) / 2
    for make, colour in WORD:
        shape, end = make(x)
        result.append((shape, colour))
        x = end + GAP
    return result


def render():
    shapes = layers()
    pixels = []
    for py in range(HEIGHT):
        row = []
        for px in range(WIDTH):
            cx, cy = px + 0.5, py + 0.5
            r = g = b = a = 0.0  # premultiplied
            for shape, colour in shapes:
                cover = max(0.0, min(1.0, 0.5 - shape(cx, cy)))
                if cover == 0.0:
                    continue
                r = colour[0] / 255 * cover + r * (1 - cover)
                g = colour[1] / 255 * cover + g * (1 - cover)
                b = colour[2] / 255 * cover + b * (1 - cover)
                a = cover + a * (1 - cover)
            if a > 0:
                row.append((round(r / a * 255), round(g / a * 255), round(b / a * 255),
                            round(a * 255)))
            else:
                row.append((0, 0, 0, 0))
        pixels.append(row)
    return pixels


# ----- PNG -----


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def filtered_rows(raw_rows, bpp):
    """Each scan line with the filter that gives the smallest sum of absolute residues."""
    previous = bytes(len(raw_rows[0]))
    out = bytearray()
    for line in raw_rows:
        candidates = []
        for kind in range(5):
            f = bytearray()
            for i, value in enumerate(line):
                left = line[i - bpp] if i >= bpp else 0
                up = previous[i]
                upper_left = previous[i - bpp] if i >= bpp else 0
                predictor = (0, left, up, (left + up) // 2, paeth(left, up, upper_left))[kind]
                f.append((value - predictor) & 0xFF)
            cost = sum(v if v < 128 else 256 - v for v in f)
            candidates.append((cost, kind, f))
        _, kind, f = min(candidates, key=lambda c: (c[0], c[1]))
        out.append(kind)
        out += f
        previous = line
    return bytes(out)


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def encode_png(pixels):
    raw_rows = [bytes(v for px in row for v in px) for row in pixels]
    ihdr = struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 6, 0, 0, 0)
    idat = zlib.compress(filtered_rows(raw_rows, 4), 9)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", ihdr) + chunk(b"IDAT", idat) +
            chunk(b"IEND", b""))


# ----- the C++ literal -----

CPP_HEAD = """\
// The authenticator's logo as a data URL: a 100 by 35 pixel RGBA PNG showing a keyhole mark and
// the word "Corvane" (resources/authenticator_logo.png). Generated by resources/make_logo.py, which
// draws the picture and writes both files; change the script and run it again rather than editing
// this file.
#include "authenticator/generic_authenticator.h"

namespace corvane {

namespace {

constexpr std::string_view kIconDataUrl =
    "data:image/png;base64,"
"""

CPP_TAIL = """\

}  // namespace

std::string_view GenericAuthenticator::icon() {
  return kIconDataUrl;
}

}  // namespace corvane
"""


def write_cpp(png):
    text = base64.b64encode(png).decode("ascii")
    lines = [text[i:i + 92] for i in range(0, len(text), 92)]
    body = "\n".join(f'    "{line}"' for line in lines) + ";\n"
    (ROOT / "src/authenticator/authenticator_icon.cpp").write_text(CPP_HEAD + body + CPP_TAIL)
    return len("data:image/png;base64,") + len(text)


def main():
    png = encode_png(render())
    (ROOT / "resources/authenticator_logo.png").write_bytes(png)
    url_length = write_cpp(png)
    print(f"authenticator_logo.png: {len(png)} bytes; data URL: {url_length} characters")


if __name__ == "__main__":
    main()
