// vyxgl: command-line front end of the library.
//   vyxgl [info]   make a headless GL context and report what the library sees in it

#include "commands.h"
#include "messages.h"
#include "gl/glloader.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/platform/internal/glcapabilities.h"

#include <cstdio>
#include <cstring>

namespace {

using Tavren::Vyx::GLCapability;
using Tavren::Vyx::HeadlessGLContext;

const char* glText(GLenum name)
{
    const GLubyte* text = glGetString(name);
    return text ? reinterpret_cast<const char*>(text) : "(null)";
}

int runInfo()
{
    HeadlessGLContext context;
    if (!context.create()) {
        std::fprintf(stderr, "vyxgl: cannot create a headless GL context: %s\n",
                     context.errorString().toLocal8Bit().constData());
        return 1;
    }
    context.makeCurrent();
    if (!initializeGLFunctions()) {
        std::fprintf(stderr, "vyxgl: initializeGLFunctions() failed\n");
        return 1;
    }
    // Loading again is harmless and gives the loader's own count.
    const int loadResult = ogl_LoadFunctions();
    std::printf("GL version:      %s\n", glText(GL_VERSION));
    std::printf("GL renderer:     %s\n", glText(GL_RENDERER));
    std::printf("GLSL version:    %s\n", glText(GL_SHADING_LANGUAGE_VERSION));
    std::printf("loader result:   %d\n", loadResult);
    std::printf("missing entries: %d\n", loadResult > 0 ? loadResult - 1 : -1);
    std::printf("extension flags:\n");
    const struct { const char* name; int flag; } flags[] = {
        {"GL_ARB_draw_indirect", ogl_ext_ARB_draw_indirect},
        {"GL_ARB_multi_draw_indirect", ogl_ext_ARB_multi_draw_indirect},
        {"GL_ARB_tessellation_shader", ogl_ext_ARB_tessellation_shader},
        {"GL_ARB_texture_cube_map_array", ogl_ext_ARB_texture_cube_map_array},
        {"GL_ARB_shader_atomic_counters", ogl_ext_ARB_shader_atomic_counters},
        {"GL_ARB_shader_image_load_store", ogl_ext_ARB_shader_image_load_store},
    };
    for (const auto& flag : flags)
        std::printf("  %-34s %d\n", flag.name, flag.flag);
    std::printf("capabilities (here, name, brought by, path):\n");
    for (int row = 0; row < int(GLCapability::Count); ++row) {
        const auto capability = GLCapability(row);
        std::printf("  %-3s %-46s %-52s %s\n", hasGLCapability(capability) ? "yes" : "no",
                    glCapabilityRow(capability).name, qPrintable(glCapabilityOrigin(capability)),
                    glCapabilityRow(capability).selects);
    }
    return 0;
}

void printUsage()
{
    std::printf("usage: vyxgl [info] | render [SCENE] [options] | view [SCENE] | inspect FILE | convert ENVMAP -o cube.ktx\n"
                "  render  render a glTF scene, or the built-in demo, to a PNG\n"
                "  view    a window on a glTF scene, or the built-in demo, to orbit, pick and play\n"
                "  inspect what a texture file or glTF scene holds\n"
                "  convert an environment picture to a cube map and its lighting maps\n"
                "  (vyxgl COMMAND --help for each command's options; --verbose anywhere shows the\n"
                "  library's notes too)\n"
                "  info   create a headless GL context and report the GL version, renderer,\n"
                "         loader result and the optional functions and extensions the library\n"
                "         chooses its paths by (default)\n");
}

} // namespace

int main(int argc, char** argv)
{
    installToolMessageHandler(takeVerboseFlag(argc, argv));
    const char* command = argc > 1 ? argv[1] : "info";
    if (std::strcmp(command, "info") == 0)
        return runInfo();
    if (std::strcmp(command, "render") == 0)
        return runRender(argc - 2, argv + 2);
    if (std::strcmp(command, "inspect") == 0)
        return runInspect(argc - 2, argv + 2);
    if (std::strcmp(command, "convert") == 0)
        return runConvert(argc - 2, argv + 2);
    if (std::strcmp(command, "view") == 0)
        return runView(argc - 2, argv + 2);
    if (std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0) {
        printUsage();
        return 0;
    }
    std::fprintf(stderr, "vyxgl: unknown command '%s'\n", command);
    printUsage();
    return 2;
}
