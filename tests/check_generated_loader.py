#!/usr/bin/env python3
"""Fails when the committed GL loader differs from what the generator makes now,
or when the generated entry-point table misstates what the registry says.

    check_generated_loader.py <repository root>
"""

import filecmp
import os
import re
import subprocess
import sys
import tempfile

GENERATED = ["glenums.h", "glloader.h", "glnames.h", "glloader.cpp", "glentrypoints.cpp"]
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def check_up_to_date(root, out_dir):
    subprocess.run([sys.executable, os.path.join(root, "tools", "gen_gl_loader.py"),
                    "/usr/share/khronos-api/gl.xml", out_dir], check=True)
    for name in GENERATED:
        committed = os.path.join(root, "src", "gl", "platform", "generated", name)
        check(os.path.exists(committed) and filecmp.cmp(committed, os.path.join(out_dir, name), shallow=False),
              "src/gl/platform/generated/%s is not what tools/gen_gl_loader.py generates; rerun it" % name)


def check_loader_headers(enums, loader, names):
    pointers = re.findall(r"^VYXGL_EXPORT extern PFNVYX\w+PROC _ptrc_(\w+);$", loader, re.M)
    forwards = re.findall(r"^#define (gl\w+) _ptrc_\1$", names, re.M)
    check(len(pointers) == 325 and len(set(pointers)) == 325, "expected 325 distinct loader pointers")
    check(sorted(pointers) == sorted(forwards), "every loader pointer needs its plain-name macro")
    # Hosts include glloader.h beside Qt's or the system's GL headers, which declare the plain names.
    check(not re.search(r"^#define (gl\w+|__gl\w*_h_|__GL_H__)\b", loader, re.M),
          "glloader.h must leave plain GL names and system header guards alone")
    check(not re.search(r"^(typedef|VYXGL_EXPORT|extern)\b", enums, re.M), "glenums.h holds enums only")
    check("glBegin" not in pointers and "glMatrixMode" not in pointers, "fixed-function entry points loaded")
    for name in ["glGetStringi", "glFenceSync", "glTexImage3DMultisample", "glMemoryBarrier",
                 "glGetActiveAtomicCounterBufferiv", "glUniformBlockBinding"]:
        check(name in pointers, "%s missing from the loader" % name)
    # Enums a texture reader meets in old files, and extension enums.
    for name in ["GL_LUMINANCE8_ALPHA8", "GL_INTENSITY", "GL_ALPHA8", "GL_COMPRESSED_RGBA_ASTC_4x4_KHR",
                 "GL_COMPRESSED_RGBA_S3TC_DXT5_EXT", "GL_TEXTURE_MAX_ANISOTROPY_EXT", "GL_ETC1_RGB8_OES",
                 "GL_COMPRESSED_RGBA_BPTC_UNORM_ARB", "GL_TEXTURE_CUBE_MAP_SEAMLESS"]:
        check(re.search(r"^#define %s 0x" % name, enums, re.M), "%s not defined" % name)
    check(re.search(r"^#define GL_TIMEOUT_IGNORED 0xFFFFFFFFFFFFFFFFull$", enums, re.M),
          "64-bit enum lost its suffix")


def check_extension_rows(loader_cpp):
    # Six extensions, compared in this order; further optional entry points go through the
    # capability table instead.
    rows = re.findall(r'^    \{"(GL_\w+)", &ogl_ext_\w+, (\w+)\},$', loader_cpp, re.M)
    check(rows == [("GL_ARB_draw_indirect", "load_ARB_draw_indirect"),
                   ("GL_ARB_multi_draw_indirect", "load_ARB_multi_draw_indirect"),
                   ("GL_ARB_tessellation_shader", "load_ARB_tessellation_shader"),
                   ("GL_ARB_texture_cube_map_array", "nullptr"),
                   ("GL_ARB_shader_atomic_counters", "load_ARB_shader_atomic_counters"),
                   ("GL_ARB_shader_image_load_store", "load_ARB_shader_image_load_store")],
          "the loader's extension table is not the six rows in their order: %s" % rows)


def check_entry_point_table(text):
    rows = {}
    order = []
    for name, version, removed, exts in re.findall(r'^    \{"(\w+)", (\d+), (true|false), "([\w ]*)"\},$', text, re.M):
        rows[name] = (int(version), removed == "true", exts.split())
        order.append(name)
    check(order == sorted(order, key=lambda n: n.encode()), "table not in byte order")
    check(len(rows) == len(order), "duplicate table rows")
    expected = {
        "glClear": (10, False, []),
        "glBegin": (10, True, []),                      # removed by the 3.2 core profile
        "glGetnColorTable": (45, True, []),             # added only to the compatibility profile
        "glColorP3ui": (33, True, []),                  # extension part is compatibility-only
        "glBufferStorage": (44, False, ["GL_ARB_buffer_storage"]),
        "glBindVertexArray": (30, False, ["GL_ARB_vertex_array_object"]),
        "glDebugMessageCallback": (43, False, ["GL_KHR_debug"]),
        "glGetTextureHandleARB": (0, False, ["GL_ARB_bindless_texture"]),
    }
    for name, want in expected.items():
        check(rows.get(name) == want, "%s: table says %s, registry means %s" % (name, rows.get(name), want))
    # Names that only OpenGL ES has must stay unknown.
    for name in ["glDebugMessageCallbackKHR", "glGetProgramBinaryOES", "glDrawArraysInstancedBaseInstanceEXT"]:
        check(name not in rows, "%s is not a desktop GL command" % name)


def main(argv):
    if len(argv) != 2:
        sys.stderr.write(__doc__)
        return 2
    root = os.path.abspath(argv[1])
    with tempfile.TemporaryDirectory() as out_dir:
        check_up_to_date(root, out_dir)
        def read(name):
            with open(os.path.join(out_dir, name), encoding="utf-8") as f:
                return f.read()
        check_loader_headers(read("glenums.h"), read("glloader.h"), read("glnames.h"))
        check_extension_rows(read("glloader.cpp"))
        with open(os.path.join(out_dir, "glentrypoints.cpp"), encoding="utf-8") as f:
            check_entry_point_table(f.read())
    for failure in failures:
        print("FAIL:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
