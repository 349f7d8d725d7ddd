// CPU time per frame to make N material textures reachable from one shader: the sampler and the
// array texture managers (bind(tokens) + bind(program) + unbind(program) + unbind(tokens)) against
// a hand loop that binds the same textures to units with glActiveTexture/glBindTexture. Past the
// driver's unit count the hand loop wraps round the units and the sampler manager runs out of
// them: neither reaches every texture in one draw there, the array manager does.
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/array2dtexturemanager.h"
#include "gl/textures/samplertexturemanager.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

HeadlessGLContext& benchContext()
{
    static HeadlessGLContext context;
    static bool ready = [] {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        // Running out of units is the point of the large sampler cases; keep the log quiet.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        return context.create() && context.makeCurrent() && initializeGLFunctions();
    }();
    if (!ready)
        std::abort();
    return context;
}

// N small textures in four sizes, as material textures of a few kinds.
std::vector<std::unique_ptr<Texture>> materialTextures(int count)
{
    std::vector<std::unique_ptr<Texture>> textures;
    const int sizes[] = {4, 8, 16, 2};
    for (int i = 0; i < count; ++i) {
        auto texture = std::make_unique<Texture>();
        texture->create2D(GL_TEXTURE_2D, GL_RGBA8, sizes[i % 4], sizes[i % 4]);
        textures.push_back(std::move(texture));
    }
    return textures;
}

void HandLoop(benchmark::State& state)
{
    benchContext();
    const auto textures = materialTextures(int(state.range(0)));
    GLint units = 16;
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &units);
    for (auto _ : state) {
        for (size_t i = 0; i < textures.size(); ++i) {
            glActiveTexture(GLenum(GL_TEXTURE0 + int(i) % units));
            glBindTexture(GL_TEXTURE_2D, textures[i]->textureID());
        }
    }
    glBindTexture(GL_TEXTURE_2D, 0);
}

// tokensOnly: bind(tokens) + unbind(tokens) alone, the part that grows with N.
void ManagerFrame(benchmark::State& state, TextureManager& manager, bool tokensOnly = false)
{
    benchContext();
    auto textures = materialTextures(int(state.range(0)));
    QSet<TextureToken> tokens;
    for (const auto& texture : textures)
        tokens.insert(manager.tokenForTexture(texture.get()));
    GLSLMacroProcessor mp;
    manager.setup(&mp);
    ShaderProgram program;
    program.setMacroProcessor(&mp);
    program.addShader(GL_VERTEX_SHADER, "#version 150\nvoid main() { gl_Position = vec4(0.0); }\n");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\n#include \"TextureManager.glslh\"\nuniform uvec2 u_Token;\n"
                                          "out vec4 o_Color;\nvoid main() { o_Color = managedTexture(u_Token, vec2(0.5)); }\n");
    program.addShaderFromFile(GL_FRAGMENT_SHADER, manager.getShaderFile());
    if (!program.link() || !program.bind())
        std::abort();
    // The first frame places textures (the array manager copies them into layers).
    manager.bind(tokens);
    manager.bind(&program);
    manager.unbind(&program);
    manager.unbind(tokens);
    for (auto _ : state) {
        manager.bind(tokens);
        if (!tokensOnly) {
            manager.bind(&program);
            manager.unbind(&program);
        }
        manager.unbind(tokens);
    }
    program.unbind();
    // The manager deletes the textures with their tokens.
    for (auto& texture : textures)
        manager.deleteTexture(texture.release());
}

void SamplerManager(benchmark::State& state)
{
    benchContext();
    SamplerTextureManager manager;
    manager.setMaxSlots(16);
    ManagerFrame(state, manager);
}

void ArrayManager(benchmark::State& state)
{
    benchContext();
    Array2DTextureManager manager;
    ManagerFrame(state, manager);
}

void ArrayManagerTokensOnly(benchmark::State& state)
{
    benchContext();
    Array2DTextureManager manager;
    ManagerFrame(state, manager, true);
}

} // namespace

BENCHMARK(HandLoop)->Arg(16)->Arg(256)->Arg(1024);
BENCHMARK(SamplerManager)->Arg(16)->Arg(256)->Arg(1024);
BENCHMARK(ArrayManager)->Arg(16)->Arg(256)->Arg(1024);
BENCHMARK(ArrayManagerTokensOnly)->Arg(16)->Arg(256)->Arg(1024);

BENCHMARK_MAIN();
