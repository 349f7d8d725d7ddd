#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/rangedvalue.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shadercachemanager.h"
#include "gl/shaders/shaderprogram.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QColor>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QGenericMatrix>
#include <QMatrix4x4>
#include <QVector3D>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "gl/glloader.h"

using namespace Tavren::Vyx;
using VyxTest::MessageCapture;

namespace {

constexpr int kSize = 16;

// The device context's quad over the target, through the program's va_Vertex/va_TexCoord
// inputs; the draw sets the program's draw ID.
void drawFullScreen(ShaderProgram& program, int drawID)
{
    QSharedPointer<DrawBuffers> quad = OpenGLDeviceContext::current()->fullscreenQuad();
    ASSERT_TRUE(quad->VAO()->bind());
    quad->VAO()->enableShaderProgramArrays(&program);
    quad->setDrawIDBase(drawID);
    EXPECT_TRUE(quad->draw(&program));
    quad->setDrawIDBase(0);
    quad->VAO()->unbind();
}

const char* const kNoiseFragment = R"(#version 150
#include "noise2D.glslh"
#include "VyxUtilities.glslh"
in vec2 vo_TexCoord;
#macro OUTPUT_DECLARATION out vec4 unused;
uniform vec4 u_Color;
void main() { out_FragColor = vec4(u_Color.r, VYX_TEST_GREEN, snoise(vo_TexCoord * 4.0) * 0.5 + 0.5, float(getDrawID()) / 255.0); }
)";

// Embedded sources, an include, a macro and a define; `reversed` adds the same shaders in the other order.
void addNoiseProgram(ShaderProgram& program, GLSLMacroProcessor& mp, bool reversed = false)
{
    mp.addDefine("VYX_TEST_GREEN", "0.5");
    mp.addMacro("OUTPUT_DECLARATION", "out vec4 out_FragColor;");
    program.setMacroProcessor(&mp);
    program.setFragDataLocations({"out_FragColor"});
    QStringList files = {"noise2D.glslc", "VyxUtilities.glslc", "passthroughVS.glslc"};
    if (reversed)
        std::reverse(files.begin(), files.end());
    else
        program.addShader(GL_FRAGMENT_SHADER, kNoiseFragment);
    for (const QString& file : files)
        program.addShaderFromFile(file.startsWith("passthrough") ? GL_VERTEX_SHADER : GL_FRAGMENT_SHADER, file);
    if (reversed)
        program.addShader(GL_FRAGMENT_SHADER, kNoiseFragment);
}

// Constant channels from the uniforms and the define; noise that varies.
void expectNoiseDrawn(ShaderProgram& program)
{
    VyxTest::ColourTarget target(kSize, kSize);
    ASSERT_TRUE(program.bind());
    EXPECT_TRUE(program.setUniform("u_Color", QVariant(QColor(255, 0, 0, 128))));
    drawFullScreen(program, 7);
    program.unbind();
    const std::vector<int> red = target.channel(0), green = target.channel(1), noise = target.channel(2);
    EXPECT_EQ(std::count(red.begin(), red.end(), 255), kSize * kSize);
    EXPECT_EQ(std::count_if(green.begin(), green.end(), [](int g) { return std::abs(g - 128) <= 1; }), kSize * kSize);
    EXPECT_EQ(target.channel(3), std::vector<int>(kSize * kSize, 7));
    const auto range = std::minmax_element(noise.begin(), noise.end());
    EXPECT_GT(*range.second - *range.first, 40) << "noise should vary across the target";
}

// Mesa offers binary formats only while its own disk cache works.
bool programBinariesUsable()
{
    ShaderProgram probe;
    return ShaderProgram::isProgramBinariesSupported() && VyxTest::glInteger(GL_NUM_PROGRAM_BINARY_FORMATS) > 0;
}

using ShaderProgramTest = VyxTest::GLTest;

} // namespace

TEST_F(ShaderProgramTest, ProgramFromEmbeddedSourcesLinksAndDraws)
{
    GLSLMacroProcessor mp;
    ShaderProgram program;
    addNoiseProgram(program, mp);
    ASSERT_TRUE(program.link()) << program.log().toStdString();
    GLint attached = 0;
    glGetProgramiv(program.shaderProgramID(), GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 4);
    EXPECT_TRUE(program.shaders().values().first()->sourceCode().isEmpty()) << "sources are dropped at link";
    expectNoiseDrawn(program);
}

TEST_F(ShaderProgramTest, EveryShippedSourceCompilesAndLinksWithItsSetupDefines)
{
    using Units = QList<QPair<int, QString>>; // stage, resource under :/GLSL/src or GLSL text
    const QString consumerVS = "#version 150\n#include \"VyxUtilities.glslh\"\nin vec4 va_Vertex;\nflat out uint vo_ID;\n"
                               "void main() { vo_ID = getDrawID(); gl_Position = va_Vertex; }";
    const QString utilitiesFS = R"(#version 150
#include "ShaderBitEncoding.glslh"
#include "VyxUtilities.glslh"
#include "DrawElementsIndirectCommand.glslh"
#include "noise2D.glslh"
vec3 colorSpaceSRGBToLinear(vec3 c);
flat in uint vo_ID;
out vec4 o_Color;
void main() {
    vec3 d = mat3Rotation(vec3(0.0, 1.0, 0.0), 0.5) * vec3(1.0, 0.0, 0.0);
    vec2 ll = directionToLatLong(d) + directionToLatLongZUp(d) + vec2(snoise(d.xy));
    uint bits = vyxFloatBitsToUint(ll.x) + u_DrawElementsIndirectCommands[vo_ID].count;
    o_Color = gammaCorrect(vec4(colorSpaceSRGBToLinear(d), vyxUintBitsToFloat(bits)), 2.2);
})";
    const QString textureFS = R"(#version 150
#include "TextureManager.glslh"
uniform uvec2 u_Token;
out vec4 o_Color;
void main() {
    vec2 uv = gl_FragCoord.xy / 16.0;
    o_Color = managedTexture(u_Token, uv) + managedTextureLod(u_Token, uv, 1.0)
            + managedTextureOffset(u_Token, uv, ivec2(1, 0)) + vec4(managedTextureSize(u_Token), 0.0, 0.0)
            + managedTexelFetch(u_Token, ivec2(0), 0) + textureGetDebug(uv) + float(vyxIsValidToken(u_Token));
})";
    const QString shadowFS = R"(#version 150
#include "ShadowMapManager.glslh"
out vec4 o_Color;
void main() {
    vec3 p = gl_FragCoord.xyz;
    o_Color = shadowMapGetDebug(p.xy) + vec4(shadowMapGetVisibility(0u, p) + shadowMapGetVisibilitySingle(1u, p)
            + shadowMapGetVisibility(2u, p, vec3(0.0, 1.0, 0.0), vec3(0.0, 0.0, 1.0)));
})";
    const QMap<QString, QString> batch = {{"OKU_CUBERENDER_NDOT_BATCH_SIZE", "4"}};
    const Units utilities = {{GL_VERTEX_SHADER, consumerVS},           {GL_VERTEX_SHADER, "VyxUtilities.vert"},
                             {GL_VERTEX_SHADER, "VyxUtilities.glslc"}, {GL_FRAGMENT_SHADER, utilitiesFS},
                             {GL_FRAGMENT_SHADER, "VyxUtilities.frag"}, {GL_FRAGMENT_SHADER, "VyxUtilities.glslc"},
                             {GL_FRAGMENT_SHADER, "noise2D.glslc"},     {GL_FRAGMENT_SHADER, "Func_ColorSpace.glslc"}};
    const Units textures = {{GL_VERTEX_SHADER, "passthroughVS.glslc"}, {GL_FRAGMENT_SHADER, textureFS},
                            {GL_FRAGMENT_SHADER, "TextureManager.glslc"}};
    auto cube = [](const QString& fragment) { return Units{{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, fragment}}; };
    QList<std::tuple<QString, QMap<QString, QString>, Units>> cases = {
        {"utilities, uniform draw ID", {}, utilities},
        {"utilities, emulated bit casts", {{"VYX_EMULATE_BIT_ENCODING", "1"}}, utilities},
        {"sampler texture manager", {{"TEXTURE_MANAGER_SAMPLER", "1"}, {"TEXTURE_MANAGER_SLOT_COUNT", "16"}}, textures},
        {"texture manager defaults", {{"DEBUG", "1"}}, textures},
        {"shadow maps",
         {{"SHADOW_MAP_MANAGER_USE_VARIANCE_MAPS", "1"}, {"SHADOW_MAP_MANAGER_INFO_ARRAY_SIZE", "32"},
          {"SHADOW_MAP_MANAGER_TRANSFORM_ARRAY_SIZE", "32"}},
         {{GL_VERTEX_SHADER, "passthroughVS.glslc"}, {GL_FRAGMENT_SHADER, shadowFS}, {GL_FRAGMENT_SHADER, "ShadowMapManager.glslc"}}},
        {"cube colour", {}, cube("CubeRender_Color.frag")},
        {"cube cross", {{"OKU_CUBERENDER_CONVERT_COLORSPACE", "colorSpaceSRGBToLinear"}},
         cube("CubeRender_Cross.frag") << qMakePair(int(GL_FRAGMENT_SHADER), QString("Func_ColorSpace.glslc"))},
        {"cube lat-long", {}, cube("CubeRender_LatLongSphere.frag")},
        {"cube sphere", {}, cube("CubeRender_Sphere.frag")},
        {"cube blur", batch, cube("CubeRender_Blur.frag")},
        {"cube N.L", batch, cube("CubeRender_NDotL.frag")},
    };
    if (hasGLExtension("GL_ARB_shader_draw_parameters"))
        cases.append({"utilities, base-instance draw ID", {{"DRAW_BUFFER_USE_BASE_INSTANCE", "1"}}, utilities});

    for (const auto& [name, defines, units] : cases) {
        SCOPED_TRACE(name.toStdString());
        GLSLMacroProcessor mp;
        for (auto it = defines.begin(); it != defines.end(); ++it)
            mp.addDefine(it.key(), it.value());
        ShaderProgram program;
        program.setMacroProcessor(&mp);
        for (const auto& [stage, file] : units)
            program.addShader(stage, file.startsWith("#version") ? file : VyxTest::glslResource(file));
        MessageCapture capture;
        EXPECT_TRUE(program.link());
        EXPECT_TRUE(capture.texts(QtWarningMsg).isEmpty()) << capture.texts().join("\n").toStdString();
    }
}

TEST_F(ShaderProgramTest, CompileAndLinkFailuresPrintTheNumberedSource)
{
    MessageCapture capture;
    Shader shader(GL_FRAGMENT_SHADER, "#version 150\nvoid main() {\n  undeclared = 1;\n}");
    EXPECT_FALSE(shader.compile());
    EXPECT_EQ(shader.shaderID(), 0u);
    EXPECT_EQ(capture.texts(QtWarningMsg).mid(0, 8),
              QStringList({"Failed to compile GL shader", " Shader Type = GL_FRAGMENT_SHADER", " =======Source======",
                           "   1 : #version 150", "   2 : void main() {", "   3 :   undeclared = 1;", "   4 : }",
                           " =======Log========="}));

    capture.clear();
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, "#version 150\nvoid main() { gl_Position = vec4(0.0); }");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nvec4 missing();\nout vec4 c;\nvoid main() { c = missing(); }");
    EXPECT_FALSE(program.link());
    const QStringList lines = capture.texts(QtWarningMsg);
    EXPECT_EQ(lines.mid(0, 2), QStringList({"Failed to link GL shader", " =======Log========="}));
    const int vertex = lines.indexOf("########### 0x8b31"), fragment = lines.indexOf("########### 0x8b30");
    ASSERT_TRUE(vertex >= 0 && fragment >= 0) << lines.join('\n').toStdString();
    EXPECT_EQ(lines.mid(vertex + 1, 2), QStringList({"   1 : #version 150", "   2 : void main() { gl_Position = vec4(0.0); }"}));
    EXPECT_EQ(lines.mid(fragment + 1, 4), QStringList({"   1 : #version 150", "   2 : vec4 missing();", "   3 : out vec4 c;",
                                                       "   4 : void main() { c = missing(); }"}));
    EXPECT_EQ(program.shaders().size(), 2) << "a failed link keeps the shaders for another try";
}

TEST_F(ShaderProgramTest, UniformsAreSetFromVariantsByType)
{
    auto program = VyxTest::linkedProgram("#version 150\nin vec4 va_Vertex;\nvoid main() { gl_Position = va_Vertex; }",
                                          R"(#version 150
uniform vec4 u_Color; uniform mat3 u_M3; uniform mat4x2 u_M42; uniform mat4 u_M4; uniform vec3 u_V3;
uniform float u_Ranged; uniform float u_RangedD; uniform int u_Int; uniform uint u_UInt;
out vec4 c;
void main() { c = u_Color + vec4(u_M3[1], u_M42[3].x) + u_M4[2] + vec4(u_V3, u_Ranged + u_RangedD) + float(u_Int) + float(u_UInt); })");
    ASSERT_TRUE(program->bind());
    MessageCapture capture;
    auto floats = [&](const char* name, int count) {
        std::vector<GLfloat> values(16, -1.0f);
        glGetUniformfv(program->shaderProgramID(), program->getUniformLocation(name), values.data());
        return std::vector<GLfloat>(values.begin(), values.begin() + count);
    };
    const float values[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const QVariant variants[] = {QColor(255, 0, 0, 128), QVariant::fromValue(QMatrix3x3(values)),
                                 QVariant::fromValue(QMatrix4x2(values)),
                                 QMatrix4x4(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16), QVector3D(1, 2, 3),
                                 QVariant::fromValue(RangedFloat(0.25f, 0.0f, 1.0f)),
                                 QVariant::fromValue(RangedDouble(0.5, 0.0, 1.0)), true, 9u};
    const char* names[] = {"u_Color", "u_M3", "u_M42", "u_M4", "u_V3", "u_Ranged", "u_RangedD", "u_Int", "u_UInt"};
    for (int i = 0; i < 9; ++i)
        EXPECT_TRUE(program->setUniform(names[i], variants[i])) << names[i];
    EXPECT_EQ(floats("u_Color", 4), (std::vector<GLfloat>{1.0f, 0.0f, 0.0f, 128.0f / 255.0f}));
    // GL hands matrices back column by column; Qt's constructors take rows.
    EXPECT_EQ(floats("u_M3", 9), (std::vector<GLfloat>{1, 4, 7, 2, 5, 8, 3, 6, 9}));
    EXPECT_EQ(floats("u_M42", 8), (std::vector<GLfloat>{1, 5, 2, 6, 3, 7, 4, 8}));
    EXPECT_EQ(floats("u_M4", 4), (std::vector<GLfloat>{1, 5, 9, 13}));
    EXPECT_EQ(floats("u_V3", 3), (std::vector<GLfloat>{1, 2, 3}));
    EXPECT_EQ(floats("u_Ranged", 1)[0] + 10 * floats("u_RangedD", 1)[0], 5.25f);
    GLint intValue = 0;
    GLuint uintValue = 0;
    glGetUniformiv(program->shaderProgramID(), program->getUniformLocation("u_Int"), &intValue);
    glGetUniformuiv(program->shaderProgramID(), program->getUniformLocation("u_UInt"), &uintValue);
    EXPECT_EQ(intValue * 10 + uintValue, 19u);

    EXPECT_FALSE(program->setUniform("u_NotThere", QVariant(1.0f)));
    EXPECT_TRUE(capture.texts().isEmpty());
    EXPECT_TRUE(program->setUniform(program->getUniformLocation("u_Int"), QVariant(QString("text"))));
    EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{"VyxShaderProgram::setUniform is not implemented for type : QString"});
    program->unbind();
}

TEST_F(ShaderProgramTest, BindingRecordsTheCurrentProgramAndCachesLinkTimeLookups)
{
    ShaderProgram program;
    MessageCapture capture;
    EXPECT_FALSE(program.bind());
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"Shader program is not linked"});
    program.addShader(GL_VERTEX_SHADER, R"(#version 150
in vec4 va_Position;
layout(std140) uniform Block { vec4 offset; };
out float vo_Id;
void main() { vo_Id = float(gl_VertexID + gl_InstanceID); gl_Position = va_Position + offset; })");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nin float vo_Id;\nout vec4 c;\nvoid main() { c = vec4(vo_Id); }");

    capture.clear();
    // The asynchronous pipeline; parallel compiling is dropped in the reduced profile.
    ASSERT_TRUE(program.linkPre());
    EXPECT_TRUE(program.linkPreWait());
    ASSERT_TRUE(program.linkPost());
    if (isReducedProfileRun())
        EXPECT_FALSE(program.usesParallelCompile());
    EXPECT_TRUE(capture.texts(QtCriticalMsg).isEmpty()) << "built-in inputs are not reported";
    EXPECT_EQ(program.getVertexAttributeNames(), QList<QString>{"va_Position"});
    EXPECT_TRUE(program.validate());

    ASSERT_TRUE(program.bind());
    EXPECT_EQ(ShaderProgram::currentShaderProgram(), &program);
    EXPECT_EQ(GLuint(VyxTest::glInteger(GL_CURRENT_PROGRAM)), program.shaderProgramID());
    const unsigned block = unsigned(program.getUniformBlockIndex("Block"));
    EXPECT_EQ(block, glGetUniformBlockIndex(program.shaderProgramID(), "Block"));
    EXPECT_EQ(program.getUniformBlockBinding(block), 0xFFFFFFFFu);
    {
        VyxTest::CallRecorder<&_ptrc_glUniformBlockBinding> recorder;
        program.setUniformBlockBinding(block, 3);
        program.setUniformBlockBinding(block, 3);
        EXPECT_EQ(recorder.count(), 1u) << "an unchanged binding makes no GL call";
    }
    GLint binding = -1;
    glGetActiveUniformBlockiv(program.shaderProgramID(), block, GL_UNIFORM_BLOCK_BINDING, &binding);
    EXPECT_EQ(binding, 3);
    program.getUniformBlockBinding(block + 5);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{VyxTest::assertionText("itFind != this->_uniformBlockBindingIndices.end()",
                                                 QString("Trying to get uniformBlockIndex %1 on shader %2. Does not exist.")
                                                     .arg(block + 5)
                                                     .arg(program.shaderProgramID()))});
    program.unbind();
    EXPECT_EQ(ShaderProgram::currentShaderProgram(), nullptr);
}

// Run as a child process by the test below: one process is one cold or warm start.
TEST_F(ShaderProgramTest, CacheHelperProcess)
{
    const QByteArray folder = qgetenv("VYX_SHADER_CACHE_HELPER_DIR");
    if (folder.isEmpty())
        GTEST_SKIP() << "only run as a helper process";
    ShaderCacheManager::Instance().setCacheParentDirectory(QDir(QString::fromLocal8Bit(folder)));
    GLSLMacroProcessor mp;
    ShaderProgram program;
    addNoiseProgram(program, mp, qEnvironmentVariableIsSet("VYX_SHADER_CACHE_HELPER_REVERSED"));
    const bool fromCache = program.cachedLoadLink();
    ASSERT_TRUE(program.isLinked());
    expectNoiseDrawn(program);
    std::printf("cachedLoadLink=%d\n", fromCache ? 1 : 0);
}

TEST_F(ShaderProgramTest, SecondProcessLinksFromTheBinaryTheFirstWrote)
{
    if (!programBinariesUsable())
        GTEST_SKIP() << "no program binaries on this context";
    int argc = 1;
    char name[] = "vyx_gl_tests";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    QTemporaryDir folder;
    auto runHelper = [&](bool reversed) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("VYX_SHADER_CACHE_HELPER_DIR", folder.path());
        if (reversed)
            environment.insert("VYX_SHADER_CACHE_HELPER_REVERSED", "1");
        QStringList arguments = {"--gtest_filter=ShaderProgramTest.CacheHelperProcess"};
        if (isReducedProfileRun())
            arguments << "--reduced-profile";
        QProcess helper;
        helper.setProcessEnvironment(environment);
        helper.start(VyxTest::glTestProgram(), arguments);
        EXPECT_TRUE(helper.waitForFinished(120000));
        const QString output = QString::fromLocal8Bit(helper.readAllStandardOutput());
        EXPECT_EQ(helper.exitCode(), 0) << output.toStdString();
        const QRegularExpressionMatch match = QRegularExpression("cachedLoadLink=(\\d)").match(output);
        return match.hasMatch() ? match.captured(1).toInt() : -1;
    };
    EXPECT_EQ(runHelper(false), 0) << "the first run compiles and writes the binary";
    // The key ignores the order in which the shaders were added.
    EXPECT_EQ(runHelper(true), 1) << "the second run links from the cache";
}

TEST_F(ShaderProgramTest, DamagedOrForeignCacheFilesFallBackToCompiling)
{
    if (!programBinariesUsable())
        GTEST_SKIP() << "no program binaries on this context";
    QTemporaryDir parent;
    ShaderCacheManager::Instance().setCacheParentDirectory(QDir(parent.path()));
    const QDir folder = ShaderCacheManager::Instance().cacheDirectory();
    auto linkFromCache = [] {
        GLSLMacroProcessor mp;
        ShaderProgram program;
        addNoiseProgram(program, mp);
        const bool fromCache = program.cachedLoadLink();
        EXPECT_TRUE(program.isLinked());
        return fromCache;
    };
    EXPECT_FALSE(linkFromCache());
    const QStringList files = folder.entryList(QDir::Files);
    ASSERT_EQ(files.size(), 1);
    const QString path = folder.absoluteFilePath(files.front());
    QFile(path).resize(QFileInfo(path).size() / 2);
    EXPECT_FALSE(linkFromCache()) << "a truncated binary";
    for (const QByteArray& bytes : {QByteArray("ab"), QByteArray(4096, '\x5a') + QByteArray("\x00\x00\x87\x40", 4)}) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
        file.close();
        EXPECT_FALSE(linkFromCache());
    }
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    EXPECT_TRUE(linkFromCache()) << "the fallback rewrote a good binary";

    // Read-only mode compiles without touching the cache.
    QFile::remove(path);
    setenv("TARN_READ_ONLY", "1", 1);
    MessageCapture capture;
    EXPECT_FALSE(linkFromCache());
    unsetenv("TARN_READ_ONLY");
    EXPECT_TRUE(capture.texts(QtDebugMsg).contains("Tarn is in read-only mode, so it will not attempt to write the binary."));
    EXPECT_TRUE(folder.entryList(QDir::Files).isEmpty());
}

TEST_F(ShaderProgramTest, WaitingForAnAsynchronousLinkGivesUpAfterFiveSeconds)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, "#version 150\nvoid main() { gl_Position = vec4(0.0); }");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nout vec4 c;\nvoid main() { c = vec4(1.0); }");
    ASSERT_TRUE(program.linkPre());
    MessageCapture capture;
    {
        // A driver that never reports completion: the status query writes nothing, so it reads 0.
        VyxTest::CallRecorder<&_ptrc_glGetProgramiv> stalled(false);
        EXPECT_TRUE(program.linkPreWait());
    }
    if (program.usesParallelCompile()) {
        const QStringList notes = capture.texts(QtDebugMsg);
        ASSERT_FALSE(notes.isEmpty());
        EXPECT_TRUE(notes.last().endsWith(" TIMEOUT 0x00")) << notes.last().toStdString();
        EXPECT_GE(notes.filter(QRegularExpression(" Sleep 0x00$")).size(), 3);
    } else {
        EXPECT_TRUE(capture.texts().isEmpty()) << "without parallel compiling there is nothing to wait for";
    }
    EXPECT_TRUE(program.linkPost());
}
