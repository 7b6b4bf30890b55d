#!/usr/bin/env python3
"""Builds world_map.svg from the npm package @svg-maps/world (CC BY 4.0, see README.md).

Usage: npm pack @svg-maps/world@2.0.0 && tar xzf svg-maps-world-2.0.0.tgz
       python3 make_world_map.py package/index.js > world_map.svg

All countries become one land shape: points closer than MIN_STEP are dropped and islands
smaller than MIN_ISLAND are left out, which keeps the file small and the coast calm at the
sizes the panel draws it. Prints the marker anchors (country centres) to stderr.
"""
import json
import re
import sys

MIN_STEP = 1.6
MIN_ISLAND = 3.0
ANCHORS = {"mapLocationUS": "us", "mapLocationMexico": "mx", "mapLocationBrasile": "br",
           "mapLocationEu": "de", "mapLocationUkraine": "ua", "mapLocationAfrica": "cf",
           "mapLocationAustralia": "au", "mapLocationIndia": "in", "mapLocationEastAsia": "cn",
           "mapLocationKorea": "kr"}


def subpaths(path):
    tokens = re.findall(r"[mz]|-?[0-9]*\.?[0-9]+(?:e[-+]?[0-9]+)?", path)
    x = y = 0.0
    current = []
    start = (0.0, 0.0)
    i = 0
    first_pair = False
    while i < len(tokens):
        t = tokens[i]
        if t == "m":
            if current:
                yield current
            current = []
            first_pair = True
            i += 1
            continue
        if t == "z":
            if current:
                yield current
            current = []
            x, y = start
            i += 1
            continue
        dx, dy = float(t), float(tokens[i + 1])
        i += 2
        x, y = x + dx, y + dy
        if first_pair:
            start = (x, y)
            first_pair = False
        current.append((x, y))
    if current:
        yield current


def simplify(points):
    out = [points[0]]
    for p in points[1:]:
        q = out[-1]
        if abs(p[0] - q[0]) + abs(p[1] - q[1]) >= MIN_STEP:
            out.append(p)
    return out


def main():
    text = open(sys.argv[1]).read()
    data = json.loads(text[text.index("{"):text.rindex("}") + 1])
    parts = []
    centres = {}
    for loc in data["locations"]:
        biggest = None
        for sub in subpaths(loc["path"]):
            xs = [p[0] for p in sub]
            ys = [p[1] for p in sub]
            w, h = max(xs) - min(xs), max(ys) - min(ys)
            if biggest is None or w * h > biggest[0]:
                biggest = (w * h, (min(xs) + max(xs)) / 2, (min(ys) + max(ys)) / 2)
            if max(w, h) < MIN_ISLAND:
                continue
            pts = simplify(sub)
            if len(pts) < 3:
                continue
            parts.append("M" + " ".join("%.1f,%.1f" % p for p in pts) + "Z")
        centres[loc["id"]] = biggest
    for name, code in ANCHORS.items():
        _, cx, cy = centres[code]
        print("%s %.0f %.0f" % (name, cx, cy), file=sys.stderr)
    print('<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 1010 666">')
    print('<!-- Land shapes simplified from @svg-maps/world 2.0.0, CC BY 4.0. -->')
    print('<path fill="#2b3f5c" d="%s"/>' % "".join(parts))
    print("</svg>")


main()
