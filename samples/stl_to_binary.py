#!/usr/bin/env python3
"""Converts an ASCII STL (as OpenSCAD writes it) to binary STL, after checking
that the mesh is fit for ray casting: closed, every edge shared by exactly two
triangles in opposite directions, outward winding, and file normals that agree
with the winding.

usage: stl_to_binary.py input.stl output.stl "header text"
"""
import math
import struct
import sys


def read_ascii_stl(path):
    triangles = []
    normal = None
    corners = []
    with open(path, "r") as f:
        for line in f:
            words = line.split()
            if not words:
                continue
            if words[0] == "facet":
                normal = tuple(float(w) for w in words[2:5])
                corners = []
            elif words[0] == "vertex":
                corners.append(tuple(float(w) for w in words[1:4]))
            elif words[0] == "endfacet":
                if len(corners) != 3:
                    raise ValueError("%s: facet with %d vertices" % (path, len(corners)))
                triangles.append((normal, corners[0], corners[1], corners[2]))
    if not triangles:
        raise ValueError("%s: no facets" % path)
    return triangles


def sub(a, b):
    return (a[0] - b[0], a[1] - b[1], a[2] - b[2])


def cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def dot(a, b):
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def check(path, triangles):
    edges = {}
    volume = 0.0
    area = 0.0
    for _, a, b, c in triangles:
        for p, q in ((a, b), (b, c), (c, a)):
            edges[(p, q)] = edges.get((p, q), 0) + 1
        volume += dot(a, cross(b, c)) / 6.0
        area += 0.5 * math.sqrt(dot(cross(sub(b, a), sub(c, a)), cross(sub(b, a), sub(c, a))))
    bad = [e for e, n in edges.items() if n != 1 or edges.get((e[1], e[0]), 0) != 1]
    if bad:
        raise ValueError("%s: %d edges are not shared by exactly two opposite triangles" % (path, len(bad)))
    if volume <= 0.0:
        raise ValueError("%s: the winding points inwards (volume %g)" % (path, volume))
    disagree = 0
    for n, a, b, c in triangles:
        w = cross(sub(b, a), sub(c, a))
        if dot(w, w) > 0.0 and dot(n, w) <= 0.0:
            disagree += 1
    if disagree:
        raise ValueError("%s: %d file normals disagree with the winding" % (path, disagree))
    points = [p for t in triangles for p in t[1:]]
    low = [min(p[i] for p in points) for i in range(3)]
    high = [max(p[i] for p in points) for i in range(3)]
    print("%s: %d triangles, closed, outward; box %s to %s mm; area %.0f mm^2; volume %.0f mm^3"
          % (path, len(triangles), [round(v, 1) for v in low], [round(v, 1) for v in high], area, volume))


def write_binary_stl(path, triangles, header):
    with open(path, "wb") as f:
        f.write(header.encode("ascii")[:80].ljust(80, b" "))
        f.write(struct.pack("<I", len(triangles)))
        for n, a, b, c in triangles:
            f.write(struct.pack("<12fH", *n, *a, *b, *c, 0))


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    triangles = read_ascii_stl(sys.argv[1])
    check(sys.argv[1], triangles)
    write_binary_stl(sys.argv[2], triangles, sys.argv[3])


if __name__ == "__main__":
    main()
