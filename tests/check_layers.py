#!/usr/bin/env python3
"""Fails when a source file of the library includes from a folder above its own.

    check_layers.py <repository root>

Each folder of src/ is one layer; a file may include from its own layer and the layers below it.
internal/ and generated/ folders belong to the folder that holds them.
"""
import os
import re
import sys

# Bottom to top.
LAYERS = [
    "core",
    "gl/platform",
    "gl/shaders",
    "gl/objects",
    "gl/drawing",
    "gl/textureio",
    "gl/textures",
    "gl/instancedata",
    "gl/model",
    "gl/shadows",
    "gl/environment",
    "scene",
    "render",
    "viewport",
]
# Headers kept at their installed paths for the library's users.
FIXED = {"gl/glloader.h": "gl/platform", "VyxGL.h": None}
INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def layer_of(path):
    if path in FIXED:
        return FIXED[path]
    folder = os.path.dirname(path)
    for part in ("/internal", "/generated"):
        folder = folder.split(part)[0]
    return folder if folder in LAYERS else False


def main(argv):
    src = os.path.join(argv[1], "src")
    problems = []
    for directory, _, names in os.walk(src):
        for name in sorted(names):
            if not name.endswith((".h", ".cpp")):
                continue
            path = os.path.relpath(os.path.join(directory, name), src)
            own = layer_of(path)
            if own is False:
                problems.append("%s: not in a layer's folder (%s)" % (path, ", ".join(LAYERS)))
                continue
            if own is None:
                continue
            with open(os.path.join(src, path), encoding="utf-8") as source:
                for number, line in enumerate(source, 1):
                    match = INCLUDE.match(line)
                    # Names that are no file of src/ are GLSL includes inside shader strings.
                    if not match or not os.path.isfile(os.path.join(src, match.group(1))):
                        continue
                    target = layer_of(match.group(1))
                    if target is None or target is False or LAYERS.index(target) > LAYERS.index(own):
                        problems.append("%s:%d: includes %s from %s, above its own layer %s"
                                        % (path, number, match.group(1), target or "no layer", own))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
