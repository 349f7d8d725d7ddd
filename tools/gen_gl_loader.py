#!/usr/bin/env python3
"""Generates the GL loader and the entry-point table from the Khronos registry.

    gen_gl_loader.py [gl.xml] [output directory]

Defaults: /usr/share/khronos-api/gl.xml and the src/gl/platform/generated directory of this
repository. Output depends only on gl.xml, so regenerating from the same
registry reproduces the committed files byte for byte.
"""

import os
import re
import sys
import xml.etree.ElementTree as ET

DEFAULT_REGISTRY = "/usr/share/khronos-api/gl.xml"

# Extensions whose enums and command prototypes the header carries on top of
# GL 1.0 to 4.6. Extend this list when library code needs more.
HEADER_EXTENSIONS = [
    "GL_ARB_bindless_texture",
    "GL_NV_bindless_texture",
    "GL_EXT_texture_filter_anisotropic",
    "GL_ARB_texture_filter_anisotropic",
    "GL_KHR_texture_compression_astc_ldr",
    "GL_KHR_texture_compression_astc_hdr",
    "GL_ARB_debug_output",
    "GL_KHR_debug",
    "GL_ARB_get_program_binary",
    "GL_OES_get_program_binary",
    "GL_ARB_parallel_shader_compile",
    "GL_ARB_shader_draw_parameters",
    "GL_EXT_texture_compression_s3tc",
    "GL_EXT_texture_sRGB",
    "GL_ARB_ES3_compatibility",
    "GL_OES_compressed_ETC1_RGB8_texture",
    "GL_ARB_texture_compression_bptc",
    "GL_EXT_texture_compression_rgtc",
    "GL_ARB_seamless_cube_map",
    "GL_ARB_direct_state_access",
    "GL_ARB_buffer_storage",
    "GL_ARB_base_instance",
    "GL_ARB_multi_bind",
    "GL_ARB_draw_indirect",
    "GL_ARB_multi_draw_indirect",
    "GL_ARB_tessellation_shader",
    "GL_ARB_texture_cube_map_array",
    "GL_ARB_shader_atomic_counters",
    "GL_ARB_shader_image_load_store",
]

# Extensions the loader checks, in the order it compares them, with the entry
# points each one loads. The order is part of the loader's contract.
LOADER_EXTENSIONS = [
    ("GL_ARB_draw_indirect", ["glDrawArraysIndirect", "glDrawElementsIndirect"]),
    ("GL_ARB_multi_draw_indirect", ["glMultiDrawArraysIndirect", "glMultiDrawElementsIndirect"]),
    ("GL_ARB_tessellation_shader", ["glPatchParameterfv", "glPatchParameteri"]),
    ("GL_ARB_texture_cube_map_array", []),
    ("GL_ARB_shader_atomic_counters", ["glGetActiveAtomicCounterBufferiv"]),
    ("GL_ARB_shader_image_load_store", ["glBindImageTexture", "glMemoryBarrier"]),
]

CORE_LOADER_VERSION = (3, 2)
CORE_LOADER_COUNT = 316

# gl.xml leans on khrplatform.h; these are the same types without it.
KHRONOS_TYPES = {
    "khronos_int8_t": "signed char",
    "khronos_uint8_t": "unsigned char",
    "khronos_int16_t": "short",
    "khronos_uint16_t": "unsigned short",
    "khronos_int32_t": "std::int32_t",
    "khronos_uint32_t": "std::uint32_t",
    "khronos_int64_t": "std::int64_t",
    "khronos_uint64_t": "std::uint64_t",
    "khronos_float_t": "float",
    "khronos_intptr_t": "std::ptrdiff_t",
    "khronos_ssize_t": "std::ptrdiff_t",
}

# With the plain-name macros, a system GL header included later sees these as done and stays out.
SYSTEM_HEADER_GUARDS = ["__gl_h_", "__GL_H__", "__glext_h_", "__gl_glext_h_",
                        "__glcorearb_h_", "__gl_glcorearb_h_"]


def version_tuple(text):
    major, minor = text.split(".")
    return int(major), int(minor)


def text_of(elem):
    """Element text with <apientry/> turned into the calling-convention macro."""
    parts = [elem.text or ""]
    for child in elem:
        if child.tag == "apientry":
            parts.append("VYX_APIENTRY")
        else:
            parts.append(text_of(child))
        parts.append(child.tail or "")
    return "".join(parts)


def api_matches(elem, api="gl"):
    return elem.get("api") in (None, api)


class Command:
    def __init__(self, elem):
        proto = elem.find("proto")
        self.name = proto.find("name").text
        returned = (proto.text or "") + "".join(
            text_of(c) + (c.tail or "") for c in proto if c.tag != "name")
        self.return_type = " ".join(returned.split()) or "void"
        self.params = []
        self.types = set()
        for ptype in proto.iter("ptype"):
            self.types.add(ptype.text)
        for param in elem.findall("param"):
            self.params.append(" ".join(text_of(param).split()))
            for ptype in param.iter("ptype"):
                self.types.add(ptype.text)

    def pfn(self):
        return "PFNVYX%sPROC" % self.name.upper()

    def typedef(self):
        params = ", ".join(self.params) if self.params else "void"
        return "typedef %s (VYX_APIENTRY *%s)(%s);" % (self.return_type, self.pfn(), params)


class Registry:
    def __init__(self, path):
        root = ET.parse(path).getroot()
        self.commands = {}
        for elem in root.find("commands").findall("command"):
            if not api_matches(elem):
                continue
            cmd = Command(elem)
            self.commands[cmd.name] = cmd

        self.enums = {}
        self.enum_order = []
        for block in root.findall("enums"):
            for elem in block.findall("enum"):
                if not api_matches(elem):
                    continue
                name = elem.get("name")
                if name in self.enums:
                    continue
                self.enums[name] = elem.get("value") + (elem.get("type") or "")
                self.enum_order.append(name)

        self.types = []
        for elem in root.find("types").findall("type"):
            if not api_matches(elem):
                continue
            name_elem = elem.find("name")
            name = name_elem.text if name_elem is not None else elem.get("name")
            self.types.append((name, elem))

        self.features = []
        for elem in root.findall("feature"):
            if elem.get("api") == "gl":
                self.features.append((version_tuple(elem.get("number")), elem))
        self.features.sort(key=lambda f: f[0])

        self.extensions = {}
        for elem in root.find("extensions").findall("extension"):
            self.extensions[elem.get("name")] = elem

    @staticmethod
    def supports_gl(ext):
        return bool({"gl", "glcore"} & set(ext.get("supported", "").split("|")))

    def extension_blocks(self, ext):
        """Require blocks of an extension that apply to desktop GL. An extension
        that is not desktop GL at all only gets here when listed on purpose, and
        then all of it counts."""
        desktop = self.supports_gl(ext)
        for req in ext.findall("require"):
            if not desktop or api_matches(req):
                yield req

    def feature_names(self, kind):
        names = set()
        for _, feature in self.features:
            for block in feature:
                if block.tag in ("require", "remove"):
                    names.update(e.get("name") for e in block.findall(kind))
        return names

    def extension_names(self, ext_name, kind):
        ext = self.extensions.get(ext_name)
        if ext is None:
            return set()
        names = set()
        for req in self.extension_blocks(ext):
            names.update(e.get("name") for e in req.findall(kind))
        return names

    def core_profile_commands(self, up_to):
        """Commands a core profile of version up_to offers."""
        names = set()
        for number, feature in self.features:
            if number > up_to:
                continue
            for req in feature.findall("require"):
                if req.get("profile") in (None, "core"):
                    names.update(e.get("name") for e in req.findall("command"))
        for number, feature in self.features:
            if number > up_to:
                continue
            for rem in feature.findall("remove"):
                if rem.get("profile") in (None, "core"):
                    names.difference_update(e.get("name") for e in rem.findall("command"))
        return names

    def entry_point_table(self):
        """name -> (introduced version as major*10+minor or 0, absent from core
        profile, sorted providing extensions) for every desktop GL command."""
        introduced = {}
        for number, feature in self.features:
            for req in feature.findall("require"):
                for e in req.findall("command"):
                    introduced.setdefault(e.get("name"), number[0] * 10 + number[1])
        latest = self.features[-1][0]
        in_core = self.core_profile_commands(latest)
        providers = {}
        for ext_name, ext in self.extensions.items():
            if not self.supports_gl(ext):
                continue
            for req in self.extension_blocks(ext):
                # Compatibility-only parts would make a core context look
                # like it offers fixed-function calls it lacks.
                compat_only = req.get("profile") == "compatibility"
                for e in req.findall("command"):
                    names = providers.setdefault(e.get("name"), set())
                    if not compat_only:
                        names.add(ext_name)
        table = {}
        for name in set(introduced) | set(providers):
            if name not in self.commands:
                continue
            version = introduced.get(name, 0)
            removed = version != 0 and name not in in_core
            table[name] = (version, removed, sorted(providers.get(name, ())))
        return table

    def type_closure(self, wanted):
        """Types needed by the given type names, in registry order."""
        needed = set(wanted)
        changed = True
        while changed:
            changed = False
            for name, elem in self.types:
                if name not in needed:
                    continue
                for dep in [elem.get("requires")] + [t.text for t in elem.iter("type") if t is not elem]:
                    if dep and dep != "khrplatform" and dep not in needed:
                        needed.add(dep)
                        changed = True
                # Callback typedefs name other GL types in their text.
                for word in re.findall(r"\bGL\w+", text_of(elem)):
                    if word != name and word not in needed and any(n == word for n, _ in self.types):
                        needed.add(word)
                        changed = True
        out = []
        for name, elem in self.types:
            if name in needed and name != "khrplatform":
                out.append(self.type_text(elem))
        return out

    @staticmethod
    def type_text(elem):
        text = text_of(elem).strip()
        for khr, std in KHRONOS_TYPES.items():
            text = re.sub(r"\b%s\b" % khr, std, text)
        return re.sub(r"typedef\s+", "typedef ", text)


def loader_core_commands(reg):
    names = reg.core_profile_commands(CORE_LOADER_VERSION)
    if len(names) != CORE_LOADER_COUNT:
        raise SystemExit("expected %d core entry points up to GL %d.%d, registry gives %d"
                         % (CORE_LOADER_COUNT, CORE_LOADER_VERSION[0], CORE_LOADER_VERSION[1], len(names)))
    return sorted(names)


def header_sets(reg):
    enums = reg.feature_names("enum")
    commands = reg.feature_names("command")
    for ext in HEADER_EXTENSIONS:
        enums |= reg.extension_names(ext, "enum")
        commands |= reg.extension_names(ext, "command")
    for ext, _ in LOADER_EXTENSIONS:
        commands |= reg.extension_names(ext, "command")
    return enums, sorted(c for c in commands if c in reg.commands)


GENERATED_NOTE = "// Generated by tools/gen_gl_loader.py from the Khronos registry; do not edit.\n"


def write_enums(reg, out):
    enums, _ = header_sets(reg)
    lines = [GENERATED_NOTE, "#pragma once\n\n"
             "// GL enum values only: for code that names formats and targets but calls no GL.\n\n"]
    for name in reg.enum_order:
        if name in enums:
            lines.append("#ifndef %s\n#define %s %s\n#endif\n" % (name, name, reg.enums[name]))
    out.write("".join(lines))


def write_header(reg, core, ext_entry_points, out):
    _, commands = header_sets(reg)
    needed_types = set()
    for name in commands:
        needed_types |= reg.commands[name].types
    # Common in hand-written code even where no prototype below needs them.
    needed_types |= {"GLDEBUGPROC", "GLDEBUGPROCARB", "GLvoid", "GLhalf", "GLclampf", "GLclampd"}

    lines = [GENERATED_NOTE, "#pragma once\n\n"]
    lines.append("// GL types, enums and the `_ptrc_` entry-point pointers. Plain GL names are left alone, so\n"
                 "// this header sits beside the system's or Qt's GL headers in either order; glnames.h\n"
                 "// maps the plain names onto the pointers.\n")
    lines.append("\n#include <cstddef>\n#include <cstdint>\n\n#include \"core/vyxexport.h\"\n"
                 "#include \"gl/platform/generated/glenums.h\"\n#include \"gl/platform/glentrypoints.h\"\n\n")
    lines.append("#if defined(_WIN32) && !defined(_WIN64)\n#define VYX_APIENTRY __stdcall\n"
                 "#else\n#define VYX_APIENTRY\n#endif\n\n")
    for text in reg.type_closure(needed_types):
        lines.append(text + "\n")
    lines.append("\n")
    for name in commands:
        lines.append(reg.commands[name].typedef() + "\n")

    loaded = core + ext_entry_points
    lines.append("\nextern \"C\" {\n\n")
    for name in loaded:
        lines.append("VYXGL_EXPORT extern %s _ptrc_%s;\n" % (reg.commands[name].pfn(), name))
    lines.append("\n")
    for ext, _ in LOADER_EXTENSIONS:
        lines.append("VYXGL_EXPORT extern int ogl_ext_%s;\n" % ext[3:])
    lines.append("\nenum { ogl_LOAD_FAILED = 0, ogl_LOAD_SUCCEEDED = 1 };\n\n"
                 "// 0 when glGetIntegerv or glGetStringi is missing, else 1 + missing entry points.\n"
                 "VYXGL_EXPORT int ogl_LoadFunctions(void);\n"
                 "VYXGL_EXPORT int ogl_GetMajorVersion(void);\n"
                 "VYXGL_EXPORT int ogl_GetMinorVersion(void);\n"
                 "// Kept as existing callers expect: true when the requested version is at\n"
                 "// least the context's, the reverse of what the name suggests.\n"
                 "VYXGL_EXPORT int ogl_IsVersionGEQ(int majorVersion, int minorVersion);\n\n"
                 "} // extern \"C\"\n")
    out.write("".join(lines))


def write_names(core, ext_entry_points, out):
    lines = [GENERATED_NOTE, "#pragma once\n\n"]
    lines.append("// Plain GL names as macros onto the `_ptrc_` pointers. System GL headers declare the same\n"
                 "// names as functions, so mark them as included and keep them out.\n")
    for guard in SYSTEM_HEADER_GUARDS:
        lines.append("#ifndef %s\n#define %s 1\n#endif\n" % (guard, guard))
    lines.append("\n#include \"gl/platform/generated/glloader.h\"\n\n")
    for name in core + ext_entry_points:
        lines.append("#define %s _ptrc_%s\n" % (name, name))
    out.write("".join(lines))


def write_source(reg, core, out):
    lines = [GENERATED_NOTE, "#include \"gl/platform/generated/glloader.h\"\n\n#include <cstring>\n\n"]
    lines.append("extern \"C\" {\n\n")
    for name in core + [n for _, names in LOADER_EXTENSIONS for n in names]:
        lines.append("%s _ptrc_%s = nullptr;\n" % (reg.commands[name].pfn(), name))
    lines.append("\n")
    for ext, _ in LOADER_EXTENSIONS:
        lines.append("int ogl_ext_%s = 0;\n" % ext[3:])
    lines.append("\n} // extern \"C\"\n\nnamespace {\n\n"
                 "template <typename Pointer>\n"
                 "int resolve(Pointer& slot, const char* name)\n{\n"
                 "    slot = reinterpret_cast<Pointer>(Tavren::Vyx::resolveGLEntryPoint(name));\n"
                 "    return slot ? 0 : 1;\n}\n\n")
    for ext, names in LOADER_EXTENSIONS:
        if not names:
            continue
        lines.append("int load_%s()\n{\n    int missing = 0;\n" % ext[3:])
        for name in names:
            lines.append("    missing += resolve(_ptrc_%s, \"%s\");\n" % (name, name))
        lines.append("    return missing;\n}\n\n")
    lines.append("int loadCore()\n{\n    int missing = 0;\n")
    for name in core:
        lines.append("    missing += resolve(_ptrc_%s, \"%s\");\n" % (name, name))
    lines.append("    return missing;\n}\n\n")
    lines.append("struct ExtensionRow\n{\n    const char* name;\n    int* flag;\n    int (*load)();\n};\n\n"
                 "const ExtensionRow extensionRows[] = {\n")
    for ext, names in LOADER_EXTENSIONS:
        lines.append("    {\"%s\", &ogl_ext_%s, %s},\n"
                     % (ext, ext[3:], ("load_%s" % ext[3:]) if names else "nullptr"))
    lines.append("};\n\n"
                 "int cachedMajor = 0;\nint cachedMinor = 0;\n\n"
                 "void fillVersionCache()\n{\n"
                 "    // Filled once per process; a null glGetIntegerv leaves it for a later try.\n"
                 "    if (cachedMajor != 0 || !_ptrc_glGetIntegerv)\n        return;\n"
                 "    _ptrc_glGetIntegerv(GL_MAJOR_VERSION, &cachedMajor);\n"
                 "    _ptrc_glGetIntegerv(GL_MINOR_VERSION, &cachedMinor);\n}\n\n"
                 "} // namespace\n\n"
                 "extern \"C\" {\n\n"
                 "int ogl_LoadFunctions(void)\n{\n"
                 "    for (const ExtensionRow& row : extensionRows)\n        *row.flag = 0;\n\n"
                 "    if (resolve(_ptrc_glGetIntegerv, \"glGetIntegerv\") != 0)\n        return ogl_LOAD_FAILED;\n"
                 "    if (resolve(_ptrc_glGetStringi, \"glGetStringi\") != 0)\n        return ogl_LOAD_FAILED;\n\n"
                 "    GLint count = 0;\n"
                 "    _ptrc_glGetIntegerv(GL_NUM_EXTENSIONS, &count);\n"
                 "    for (GLint i = 0; i < count; ++i) {\n"
                 "        const char* name = reinterpret_cast<const char*>(_ptrc_glGetStringi(GL_EXTENSIONS, GLuint(i)));\n"
                 "        if (!name)\n            continue;\n"
                 "        for (const ExtensionRow& row : extensionRows) {\n"
                 "            if (std::strcmp(name, row.name) == 0) {\n"
                 "                *row.flag = 1 + (row.load ? row.load() : 0);\n"
                 "                break;\n            }\n        }\n    }\n\n"
                 "    return ogl_LOAD_SUCCEEDED + loadCore();\n}\n\n"
                 "int ogl_GetMajorVersion(void)\n{\n    fillVersionCache();\n    return cachedMajor;\n}\n\n"
                 "int ogl_GetMinorVersion(void)\n{\n    fillVersionCache();\n    return cachedMinor;\n}\n\n"
                 "int ogl_IsVersionGEQ(int majorVersion, int minorVersion)\n{\n"
                 "    fillVersionCache();\n"
                 "    if (majorVersion > cachedMajor)\n        return 1;\n"
                 "    if (majorVersion < cachedMajor)\n        return 0;\n"
                 "    return minorVersion >= cachedMinor ? 1 : 0;\n}\n\n"
                 "} // extern \"C\"\n")
    out.write("".join(lines))


def write_table(reg, out):
    table = reg.entry_point_table()
    lines = [GENERATED_NOTE, "#include \"gl/platform/glentrypoints.h\"\n\n#include <cstring>\n\n"
             "namespace Tavren {\nnamespace Vyx {\n\nnamespace {\n\n"
             "// Sorted by name (byte order) for the binary search below.\n"
             "const GLEntryPointInfo entryPoints[] = {\n"]
    for name in sorted(table):
        version, removed, exts = table[name]
        lines.append("    {\"%s\", %d, %s, \"%s\"},\n"
                     % (name, version, "true" if removed else "false", " ".join(exts)))
    lines.append("};\n\n} // namespace\n\n"
                 "const GLEntryPointInfo* findGLEntryPointInfo(const char* name)\n{\n"
                 "    if (!name)\n        return nullptr;\n"
                 "    std::size_t low = 0;\n"
                 "    std::size_t high = sizeof(entryPoints) / sizeof(entryPoints[0]);\n"
                 "    while (low < high) {\n"
                 "        const std::size_t mid = low + (high - low) / 2;\n"
                 "        const int order = std::strcmp(entryPoints[mid].name, name);\n"
                 "        if (order == 0)\n            return &entryPoints[mid];\n"
                 "        if (order < 0)\n            low = mid + 1;\n"
                 "        else\n            high = mid;\n    }\n"
                 "    return nullptr;\n}\n\n"
                 "} // namespace Vyx\n} // namespace Tavren\n")
    out.write("".join(lines))


def generate(registry_path, out_dir):
    reg = Registry(registry_path)
    core = loader_core_commands(reg)
    ext_entry_points = [n for _, names in LOADER_EXTENSIONS for n in names]
    assert not set(core) & set(ext_entry_points)
    os.makedirs(out_dir, exist_ok=True)
    writers = [("glenums.h", lambda f: write_enums(reg, f)),
               ("glloader.h", lambda f: write_header(reg, core, ext_entry_points, f)),
               ("glnames.h", lambda f: write_names(core, ext_entry_points, f)),
               ("glloader.cpp", lambda f: write_source(reg, core, f)),
               ("glentrypoints.cpp", lambda f: write_table(reg, f))]
    for filename, writer in writers:
        with open(os.path.join(out_dir, filename), "w", encoding="utf-8", newline="\n") as f:
            writer(f)


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    registry = argv[1] if len(argv) > 1 else DEFAULT_REGISTRY
    out_dir = argv[2] if len(argv) > 2 else os.path.join(here, "..", "src", "gl", "platform", "generated")
    generate(registry, out_dir)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
