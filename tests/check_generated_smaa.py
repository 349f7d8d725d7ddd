#!/usr/bin/env python3
"""Fails when the committed anti-aliasing lookup tables differ from what the generator makes.

    check_generated_smaa.py <repository root>
"""

import filecmp
import os
import subprocess
import sys
import tempfile

root = sys.argv[1]
with tempfile.TemporaryDirectory() as out_dir:
    fresh = os.path.join(out_dir, "smaalookup.cpp")
    subprocess.run([sys.executable, os.path.join(root, "tools", "gen_smaa_lookup.py"), fresh], check=True)
    if not filecmp.cmp(fresh, os.path.join(root, "src", "render", "smaalookup.cpp"), shallow=False):
        sys.exit("src/render/smaalookup.cpp is not what tools/gen_smaa_lookup.py generates; rerun it")
