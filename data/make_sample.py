#!/usr/bin/env python3
"""Writes sample_points.csv: 400 scattered elevation samples of a smooth,
terrain-like surface over a 5 km x 4 km area (local metres).

The field z(x, y), in metres:
  a plane of 180 m rising gently to the north-east (1.2 m per 100 m east,
  0.6 m per 100 m north),
  + a main hill, 140 m high, centred at (1400, 2900), sigma 650 m,
  + a broader second hill, 90 m, at (3900, 1100), sigma 800 m,
  + a small knoll, 45 m, at (3300, 3300), sigma 350 m,
  - a straight valley, 60 m deep, sigma 300 m across, running south-west to
    north-east through (0, 500) and (5000, 3500), between the two hills.

The samples are laid out as a survey might be: three straight survey lines
(135 points), five clusters of 12 points around wells (60 points) and 205
points scattered at random. Standard library only; the seed is fixed, so the
file is the same on every run.
"""

import math
import os
import random

X_SIZE, Y_SIZE = 5000.0, 4000.0


def bump(x, y, height, cx, cy, sigma):
    return height * math.exp(-((x - cx) ** 2 + (y - cy) ** 2) / (2 * sigma * sigma))


def valley_depth(x, y):
    # distance from the valley's axis through (0, 500) and (5000, 3500)
    ax, ay = 0.0, 500.0
    ux, uy = 5000.0, 3000.0
    length = math.hypot(ux, uy)
    across = ((x - ax) * uy - (y - ay) * ux) / length
    return 60.0 * math.exp(-across * across / (2 * 300.0 * 300.0))


def field(x, y):
    z = 180.0 + 0.012 * x + 0.006 * y
    z += bump(x, y, 140.0, 1400.0, 2900.0, 650.0)
    z += bump(x, y, 90.0, 3900.0, 1100.0, 800.0)
    z += bump(x, y, 45.0, 3300.0, 3300.0, 350.0)
    z -= valley_depth(x, y)
    return z


def clip(x, y):
    return min(max(x, 0.0), X_SIZE), min(max(y, 0.0), Y_SIZE)


def main():
    rng = random.Random(20240611)
    points = []

    # Survey lines: evenly spaced stations, each a few metres off the line.
    for (x0, y0), (x1, y1), n in (((300.0, 3700.0), (4700.0, 3200.0), 50),
                                  ((500.0, 200.0), (2600.0, 3800.0), 45),
                                  ((2800.0, 300.0), (4800.0, 2400.0), 40)):
        for i in range(n):
            t = i / (n - 1)
            points.append(clip(x0 + (x1 - x0) * t + rng.gauss(0.0, 12.0),
                               y0 + (y1 - y0) * t + rng.gauss(0.0, 12.0)))

    # Well clusters.
    for cx, cy in ((1200.0, 1200.0), (2500.0, 2000.0), (4200.0, 3500.0),
                   (700.0, 2600.0), (3600.0, 700.0)):
        for _ in range(12):
            points.append(clip(rng.gauss(cx, 40.0), rng.gauss(cy, 40.0)))

    # Scattered samples.
    while len(points) < 400:
        points.append((rng.uniform(0.0, X_SIZE), rng.uniform(0.0, Y_SIZE)))

    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "sample_points.csv")
    with open(out, "w", newline="\n") as f:
        f.write("x,y,z\n")
        for x, y in points:
            x, y = round(x, 2), round(y, 2)
            f.write(f"{x:.2f},{y:.2f},{field(x, y):.2f}\n")


if __name__ == "__main__":
    main()
