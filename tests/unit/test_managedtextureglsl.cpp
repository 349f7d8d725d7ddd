// The texture-manager GLSL that llvmpipe cannot compile (bindless handles, the GLSL 4.00 form of
// the array manager), checked offline with glslangValidator where it is installed.
#include "gl/shaders/glslmacroprocessor.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Tavren::Vyx::GLSLMacroProcessor;

namespace {

// Calls every function of "TextureManager.glslh", so each body is compiled.
const char* const kCaller = R"(
uniform uvec2 u_Token;
out vec4 o_Color;
void main()
{
    o_Color = managedTexture(u_Token, vec2(0.5)) + managedTextureLod(u_Token, vec2(0.5), 1.0)
            + managedTextureOffset(u_Token, vec2(0.5), ivec2(1)) + managedTexelFetch(u_Token, ivec2(0), 0)
            + vec4(managedTextureSize(u_Token), float(vyxIsValidToken(u_Token)), 0.0) + textureGetDebug(vec2(0.0));
#ifdef TEXTURE_MANAGER_ARRAY2D_SUPPORTS_TEXTURE_QUERY_LOD
    o_Color.xy += managedTextureQueryLod(u_Token, vec2(0.5));
#endif
}
)";

struct Case { const char* file; const char* versionMacro; bool debugAndQueryLod; };

} // namespace

TEST(ManagedTextureGLSL, BindlessAndVersion400SourcesCompile)
{
    const QString validator = QStandardPaths::findExecutable("glslangValidator");
    if (validator.isEmpty())
        GTEST_SKIP() << "glslangValidator is not installed";
    const Case cases[] = {{"BindlessTextureManager.glslc", nullptr, false},
                          {"BindlessTextureManager.glslc", nullptr, true},
                          {"Array2DTextureManagerBindless.glslc", nullptr, false},
                          {"Array2DTextureManagerBindless.glslc", nullptr, true},
                          {"Array2DTextureManager.glslc", "#version 400", true}};
    QTemporaryDir dir;
    for (const Case& c : cases) {
        QFile file(QStringLiteral(":/GLSL/src/") + c.file);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << c.file;
        GLSLMacroProcessor mp;
        mp.addDefine("TEXTURE_MANAGER_ARRAY2D", "1");
        mp.addDefine("TEXTURE_MANAGER_ARRAY2D_COUNT", "12");
        if (c.versionMacro)
            mp.addMacro("TEXTURE_MANAGER_ARRAY2D_GLSL_VERSION", c.versionMacro);
        if (c.debugAndQueryLod) {
            mp.addDefine("DEBUG", "1");
            mp.addDefine("TEXTURE_MANAGER_ARRAY2D_SUPPORTS_TEXTURE_QUERY_LOD", "1");
        }
        const QString path = dir.filePath("shader.frag");
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write((GLSLMacroProcessor::process(QString::fromLatin1(file.readAll()), &mp) + kCaller).toLatin1());
        out.close();
        QProcess process;
        process.start(validator, {path});
        ASSERT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitCode(), 0) << c.file << " debug=" << c.debugAndQueryLod << "\n"
                                         << process.readAllStandardOutput().toStdString();
    }
}
