// Cold compile-and-link of a program against a warm cachedLoadLink() of the same program.
// Each iteration does one of each and reports both times and their ratio as counters.
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shadercachemanager.h"
#include "gl/shaders/shaderprogram.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "gl/glloader.h"

using namespace Tavren::Vyx;

namespace {

const char* const kConsumer = R"(#version 150
#include "TextureManager.glslh"
#include "ShadowMapManager.glslh"
in vec2 vo_TexCoord;
uniform uvec2 u_Token;
out vec4 out_FragColor;
void main()
{
    vec3 p = vec3(vo_TexCoord, 0.5);
    float lit = shadowMapGetVisibility(0u, p) * shadowMapGetVisibility(1u, p, vec3(0.0, 1.0, 0.0), vec3(0.0, 0.0, 1.0));
    out_FragColor = managedTexture(u_Token, vo_TexCoord) * lit + shadowMapGetDebug(vo_TexCoord);
}
)";

QString resource(const char* name)
{
    QFile file(QStringLiteral(":/GLSL/src/") + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

// salt >= 0 gives every unit a unique comment, so the driver's own shader cache cannot help.
void addSources(ShaderProgram& program, GLSLMacroProcessor& mp, int salt)
{
    mp.addDefine("TEXTURE_MANAGER_SAMPLER", "1");
    mp.addDefine("TEXTURE_MANAGER_SLOT_COUNT", "16");
    mp.addDefine("SHADOW_MAP_MANAGER_USE_VARIANCE_MAPS", "1");
    mp.addDefine("SHADOW_MAP_MANAGER_INFO_ARRAY_SIZE", "32");
    mp.addDefine("SHADOW_MAP_MANAGER_TRANSFORM_ARRAY_SIZE", "32");
    program.setMacroProcessor(&mp);
    program.setFragDataLocations({"out_FragColor"});
    const QString tail = salt >= 0 ? QStringLiteral("\n// cold %1\n").arg(salt) : QString();
    program.addShader(GL_VERTEX_SHADER, resource("passthroughVS.glslc") + tail);
    program.addShader(GL_FRAGMENT_SHADER, resource("TextureManager.glslc") + tail);
    program.addShader(GL_FRAGMENT_SHADER, resource("ShadowMapManager.glslc") + tail);
    program.addShader(GL_FRAGMENT_SHADER, QLatin1String(kConsumer) + tail);
}

void BM_ColdLinkVersusWarmCachedLoadLink(benchmark::State& state)
{
    // The cache notes every load and write; keep the report readable.
    qputenv("QT_LOGGING_RULES", "default.debug=false");
    QTemporaryDir mesaCache;
    // A private driver cache keeps earlier runs from warming the "cold" side.
    setenv("MESA_SHADER_CACHE_DIR", qPrintable(mesaCache.path()), 1);
    HeadlessGLContext context;
    if (!context.create() || !context.makeCurrent() || !initializeGLFunctions()) {
        state.SkipWithError("no GL context");
        return;
    }
    QTemporaryDir cacheParent;
    ShaderCacheManager::Instance().setCacheParentDirectory(QDir(cacheParent.path()));
    {
        GLSLMacroProcessor mp;
        ShaderProgram program;
        addSources(program, mp, -1);
        program.cachedLoadLink();
        if (!program.isLinked() || !ShaderProgram::isProgramBinariesSupported()) {
            state.SkipWithError("program did not link or binaries are unsupported");
            return;
        }
    }

    qint64 coldNs = 0;
    qint64 warmNs = 0;
    int salt = 0;
    for (auto _ : state) {
        QElapsedTimer timer;
        {
            GLSLMacroProcessor mp;
            ShaderProgram program;
            addSources(program, mp, salt++);
            timer.start();
            const bool linked = program.compile() && program.link();
            glFinish();
            coldNs += timer.nsecsElapsed();
            if (!linked) {
                state.SkipWithError("cold link failed");
                return;
            }
        }
        {
            GLSLMacroProcessor mp;
            ShaderProgram program;
            addSources(program, mp, -1);
            timer.start();
            const bool fromCache = program.cachedLoadLink();
            glFinish();
            warmNs += timer.nsecsElapsed();
            if (!fromCache) {
                state.SkipWithError("warm link did not come from the cache");
                return;
            }
        }
    }
    const double iterations = double(state.iterations());
    state.counters["cold_ms"] = double(coldNs) / iterations / 1e6;
    state.counters["warm_ms"] = double(warmNs) / iterations / 1e6;
    state.counters["cold_over_warm"] = warmNs > 0 ? double(coldNs) / double(warmNs) : 0.0;
    std::printf("cold compile+link %.3f ms, warm cachedLoadLink %.3f ms, ratio %.1fx\n", double(coldNs) / iterations / 1e6,
                double(warmNs) / iterations / 1e6, warmNs > 0 ? double(coldNs) / double(warmNs) : 0.0);
}

} // namespace

BENCHMARK(BM_ColdLinkVersusWarmCachedLoadLink)->Iterations(20)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
