#include "gl/glslmacroprocessor.h"
#include "gl/glutilities.h"
#include "gl/rangedvalue.h"
#include "gl/shadercachemanager.h"
#include "gl/shaderprogram.h"
#include "support/callrecorder.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

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

// A small colour target made with raw GL, bound for the length of the scope.
struct OffscreenTarget
{
    GLuint framebuffer = 0;
    GLuint renderbuffer = 0;

    OffscreenTarget()
    {
        glGenRenderbuffers(1, &renderbuffer);
        glBindRenderbuffer(GL_RENDERBUFFER, renderbuffer);
        glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, kSize, kSize);
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, renderbuffer);
        glViewport(0, 0, kSize, kSize);
        glClearColor(0, 0, 0, 0);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    ~OffscreenTarget()
    {
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glDeleteFramebuffers(1, &framebuffer);
        glDeleteRenderbuffers(1, &renderbuffer);
    }
    std::vector<unsigned char> pixels() const
    {
        std::vector<unsigned char> rgba(kSize * kSize * 4);
        glReadPixels(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
        return rgba;
    }
};

// Draws one triangle covering the target through the program's va_Vertex/va_TexCoord inputs.
void drawFullScreen(const ShaderProgram& program)
{
    const float vertices[] = {-1, -1, 0, 1, 0, 0, 3, -1, 0, 1, 2, 0, -1, 3, 0, 1, 0, 2};
    GLuint vao = 0, vbo = 0;
    glGenVertexArrays(1, &vao);
    glBindVertexArray(vao);
    glGenBuffers(1, &vbo);
    glBindBuffer(GL_ARRAY_BUFFER, vbo);
    glBufferData(GL_ARRAY_BUFFER, sizeof(vertices), vertices, GL_STATIC_DRAW);
    const int position = program.getVertexAttributeLocation("va_Vertex");
    const int texCoord = program.getVertexAttributeLocation("va_TexCoord");
    glEnableVertexAttribArray(GLuint(position));
    glVertexAttribPointer(GLuint(position), 4, GL_FLOAT, GL_FALSE, 6 * sizeof(float), nullptr);
    if (texCoord >= 0) {
        glEnableVertexAttribArray(GLuint(texCoord));
        glVertexAttribPointer(GLuint(texCoord), 2, GL_FLOAT, GL_FALSE, 6 * sizeof(float),
                              reinterpret_cast<void*>(4 * sizeof(float)));
    }
    glDrawArrays(GL_TRIANGLES, 0, 3);
    glBindVertexArray(0);
    glDeleteBuffers(1, &vbo);
    glDeleteVertexArrays(1, &vao);
}

QString resourceText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

const char* const kNoiseFragment = R"(#version 150
#include "noise2D.glslh"
#include "VyxUtilities.glslh"
in vec2 vo_TexCoord;
#macro OUTPUT_DECLARATION out vec4 unused;
uniform vec4 u_Color;
void main()
{
    float n = snoise(vo_TexCoord * 4.0) * 0.5 + 0.5;
    out_FragColor = vec4(u_Color.r, VYX_TEST_GREEN, n, float(getDrawID()) / 255.0);
}
)";

// The program of the drawing and cache tests: embedded sources, an include, a macro and a define.
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

// Draws the noise program and checks what it wrote: constant channels from the uniforms and
// the define, noise that varies and stays in range.
void expectNoiseDrawn(ShaderProgram& program)
{
    OffscreenTarget target;
    ASSERT_TRUE(program.bind());
    EXPECT_TRUE(program.setUniform("u_Color", QVariant(QColor(255, 0, 0, 128))));
    EXPECT_TRUE(program.setUniform(program.getUniformLocationNameID(), 7u));
    drawFullScreen(program);
    program.unbind();
    const std::vector<unsigned char> rgba = target.pixels();
    int lowest = 255, highest = 0;
    for (int i = 0; i < kSize * kSize; ++i) {
        ASSERT_EQ(rgba[4 * i + 0], 255);
        ASSERT_NEAR(rgba[4 * i + 1], 128, 1);
        ASSERT_EQ(rgba[4 * i + 3], 7);
        lowest = std::min(lowest, int(rgba[4 * i + 2]));
        highest = std::max(highest, int(rgba[4 * i + 2]));
    }
    EXPECT_GT(highest - lowest, 40) << "noise should vary across the target";
}

// Mesa offers binary formats only while its own disk cache works.
bool programBinariesUsable()
{
    ShaderProgram probe;
    GLint formats = 0;
    glGetIntegerv(GL_NUM_PROGRAM_BINARY_FORMATS, &formats);
    return ShaderProgram::isProgramBinariesSupported() && formats > 0;
}

class ShaderProgramTest : public VyxTest::GLTest
{
};

} // namespace

TEST_F(ShaderProgramTest, ProgramFromEmbeddedSourcesLinksAndDraws)
{
    GLSLMacroProcessor mp;
    ShaderProgram program;
    addNoiseProgram(program, mp);
    ASSERT_TRUE(program.link()) << program.log().toStdString();

    GLint attached = 0;
    glGetProgramiv(program.shaderProgramID(), GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 4) << "all three fragment units are attached";
    EXPECT_EQ(program.getVertexAttributeNames().size(), 2);
    EXPECT_TRUE(program.shaders().values().first()->sourceCode().isEmpty()) << "sources are dropped at link";
    expectNoiseDrawn(program);
}

TEST_F(ShaderProgramTest, EveryShippedSourceCompilesAndLinksWithItsSetupDefines)
{
    struct Unit
    {
        int stage;
        QString file; // a resource under :/GLSL/src, or GLSL text
    };
    struct Case
    {
        QString name;
        QMap<QString, QString> defines;
        QList<Unit> units;
    };
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
    const QMap<QString, QString> textureDefines = {{"TEXTURE_MANAGER_SAMPLER", "1"}, {"TEXTURE_MANAGER_SLOT_COUNT", "16"}};
    const QMap<QString, QString> shadowDefines = {{"SHADOW_MAP_MANAGER_USE_VARIANCE_MAPS", "1"},
                                                  {"SHADOW_MAP_MANAGER_INFO_ARRAY_SIZE", "32"},
                                                  {"SHADOW_MAP_MANAGER_TRANSFORM_ARRAY_SIZE", "32"}};
    const QMap<QString, QString> batch = {{"OKU_CUBERENDER_NDOT_BATCH_SIZE", "4"}};
    const QList<Unit> utilityUnits = {{GL_VERTEX_SHADER, consumerVS},           {GL_VERTEX_SHADER, "VyxUtilities.vert"},
                                      {GL_VERTEX_SHADER, "VyxUtilities.glslc"}, {GL_FRAGMENT_SHADER, utilitiesFS},
                                      {GL_FRAGMENT_SHADER, "VyxUtilities.frag"}, {GL_FRAGMENT_SHADER, "VyxUtilities.glslc"},
                                      {GL_FRAGMENT_SHADER, "noise2D.glslc"},     {GL_FRAGMENT_SHADER, "Func_ColorSpace.glslc"}};
    QList<Case> cases = {
        {"utilities, uniform draw ID", {}, utilityUnits},
        {"utilities, emulated bit casts", {{"VYX_EMULATE_BIT_ENCODING", "1"}}, utilityUnits},
        {"sampler texture manager", textureDefines,
         {{GL_VERTEX_SHADER, "passthroughVS.glslc"}, {GL_FRAGMENT_SHADER, textureFS}, {GL_FRAGMENT_SHADER, "TextureManager.glslc"}}},
        {"texture manager defaults", {{"DEBUG", "1"}},
         {{GL_VERTEX_SHADER, "passthroughVS.glslc"}, {GL_FRAGMENT_SHADER, textureFS}, {GL_FRAGMENT_SHADER, "TextureManager.glslc"}}},
        {"shadow maps", shadowDefines,
         {{GL_VERTEX_SHADER, "passthroughVS.glslc"}, {GL_FRAGMENT_SHADER, shadowFS}, {GL_FRAGMENT_SHADER, "ShadowMapManager.glslc"}}},
        {"cube colour", {}, {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_Color.frag"}}},
        {"cube cross", {{"OKU_CUBERENDER_CONVERT_COLORSPACE", "colorSpaceSRGBToLinear"}},
         {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_Cross.frag"},
          {GL_FRAGMENT_SHADER, "Func_ColorSpace.glslc"}}},
        {"cube lat-long", {}, {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_LatLongSphere.frag"}}},
        {"cube sphere", {}, {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_Sphere.frag"}}},
        {"cube blur", batch, {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_Blur.frag"}}},
        {"cube N.L", batch, {{GL_VERTEX_SHADER, "CubeRender.vert"}, {GL_FRAGMENT_SHADER, "CubeRender_NDotL.frag"}}},
    };
    if (hasGLExtension("GL_ARB_shader_draw_parameters"))
        cases.append({"utilities, base-instance draw ID", {{"DRAW_BUFFER_USE_BASE_INSTANCE", "1"}}, utilityUnits});

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name.toStdString());
        GLSLMacroProcessor mp;
        for (auto it = c.defines.begin(); it != c.defines.end(); ++it)
            mp.addDefine(it.key(), it.value());
        ShaderProgram program;
        program.setMacroProcessor(&mp);
        for (const Unit& unit : c.units) {
            if (unit.file.startsWith("#version"))
                program.addShader(unit.stage, unit.file);
            else
                program.addShader(unit.stage, resourceText(":/GLSL/src/" + unit.file));
        }
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
    EXPECT_FALSE(shader.log().isEmpty());
    const QStringList compileLines = capture.texts(QtWarningMsg);
    ASSERT_GT(compileLines.size(), 8);
    EXPECT_EQ(compileLines.mid(0, 8), QStringList({"Failed to compile GL shader", " Shader Type = GL_FRAGMENT_SHADER",
                                                   " =======Source======", "   1 : #version 150", "   2 : void main() {",
                                                   "   3 :   undeclared = 1;", "   4 : }", " =======Log========="}));

    capture.clear();
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, "#version 150\nvoid main() { gl_Position = vec4(0.0); }");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nvec4 missing();\nout vec4 c;\nvoid main() { c = missing(); }");
    EXPECT_FALSE(program.link());
    EXPECT_FALSE(program.isLinked());
    EXPECT_FALSE(program.log().isEmpty());
    const QStringList linkLines = capture.texts(QtWarningMsg);
    ASSERT_GE(linkLines.size(), 3);
    EXPECT_EQ(linkLines.mid(0, 2), QStringList({"Failed to link GL shader", " =======Log========="}));
    const int vertex = linkLines.indexOf("########### 0x8b31");
    const int fragment = linkLines.indexOf("########### 0x8b30");
    ASSERT_GE(vertex, 0);
    ASSERT_GE(fragment, 0);
    EXPECT_EQ(linkLines.mid(vertex + 1, 2), QStringList({"   1 : #version 150", "   2 : void main() { gl_Position = vec4(0.0); }"}));
    EXPECT_EQ(linkLines.mid(fragment + 1, 4), QStringList({"   1 : #version 150", "   2 : vec4 missing();", "   3 : out vec4 c;",
                                                           "   4 : void main() { c = missing(); }"}));
    EXPECT_EQ(program.shaders().size(), 2) << "a failed link keeps the shaders for another try";
}

TEST_F(ShaderProgramTest, UniformsAreSetFromVariantsByType)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, "#version 150\nin vec4 va_Vertex;\nvoid main() { gl_Position = va_Vertex; }");
    program.addShader(GL_FRAGMENT_SHADER, R"(#version 150
uniform vec4 u_Color; uniform mat3 u_M3; uniform mat4x2 u_M42; uniform mat4 u_M4; uniform vec3 u_V3;
uniform float u_Ranged; uniform float u_RangedD; uniform int u_Int; uniform uint u_UInt;
out vec4 c;
void main() { c = u_Color + vec4(u_M3[1], u_M42[3].x) + u_M4[2] + vec4(u_V3, u_Ranged + u_RangedD) + float(u_Int) + float(u_UInt); })");
    ASSERT_TRUE(program.link());
    ASSERT_TRUE(program.bind());

    MessageCapture capture;
    const GLuint id = program.shaderProgramID();
    auto floats = [&](const char* name, int count) {
        std::vector<GLfloat> values(16, -1.0f);
        glGetUniformfv(id, program.getUniformLocation(name), values.data());
        return std::vector<GLfloat>(values.begin(), values.begin() + count);
    };
    EXPECT_TRUE(program.setUniform("u_Color", QVariant(QColor(255, 0, 0, 128))));
    EXPECT_EQ(floats("u_Color", 4), (std::vector<GLfloat>{1.0f, 0.0f, 0.0f, 128.0f / 255.0f}));

    const float values[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const QMatrix3x3 m3(values);
    const QMatrix4x2 m42(values);
    EXPECT_TRUE(program.setUniform("u_M3", QVariant::fromValue(m3)));
    EXPECT_TRUE(program.setUniform("u_M42", QVariant::fromValue(m42)));
    EXPECT_TRUE(program.setUniform("u_M4", QVariant(QMatrix4x4(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16))));
    EXPECT_TRUE(program.setUniform("u_V3", QVariant(QVector3D(1, 2, 3))));
    EXPECT_TRUE(program.setUniform("u_Ranged", QVariant::fromValue(RangedFloat(0.25f, 0.0f, 1.0f))));
    EXPECT_TRUE(program.setUniform("u_RangedD", QVariant::fromValue(RangedDouble(0.5, 0.0, 1.0))));
    EXPECT_TRUE(program.setUniform("u_Int", QVariant(true)));
    EXPECT_TRUE(program.setUniform("u_UInt", QVariant(9u)));
    // GL hands matrices back column by column; Qt's constructors take rows.
    std::vector<GLfloat> m3Columns, m42Columns;
    for (int column = 0; column < 4; ++column) {
        for (int row = 0; row < 3; ++row) {
            if (column < 3)
                m3Columns.push_back(m3(row, column));
            if (row < 2)
                m42Columns.push_back(m42(row, column));
        }
    }
    EXPECT_EQ(floats("u_M3", 9), m3Columns);
    EXPECT_EQ(floats("u_M42", 8), m42Columns);
    EXPECT_EQ(floats("u_M4", 4), (std::vector<GLfloat>{1, 5, 9, 13}));
    EXPECT_EQ(floats("u_V3", 3), (std::vector<GLfloat>{1, 2, 3}));
    EXPECT_EQ(floats("u_Ranged", 1)[0], 0.25f);
    EXPECT_EQ(floats("u_RangedD", 1)[0], 0.5f);
    GLint intValue = 0;
    GLuint uintValue = 0;
    glGetUniformiv(id, program.getUniformLocation("u_Int"), &intValue);
    glGetUniformuiv(id, program.getUniformLocation("u_UInt"), &uintValue);
    EXPECT_EQ(intValue, 1);
    EXPECT_EQ(uintValue, 9u);
    EXPECT_TRUE(capture.texts().isEmpty());

    EXPECT_FALSE(program.setUniform("u_NotThere", QVariant(1.0f)));
    EXPECT_TRUE(capture.texts().isEmpty());
    EXPECT_TRUE(program.setUniform(program.getUniformLocation("u_Int"), QVariant(QString("text"))));
    EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{"VyxShaderProgram::setUniform is not implemented for type : QString"});
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    program.unbind();
}

TEST_F(ShaderProgramTest, BindingRecordsTheCurrentProgramAndCachesLinkTimeLookups)
{
    ShaderProgram program;
    {
        MessageCapture capture;
        EXPECT_FALSE(program.bind());
        EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"Shader program is not linked"});
        EXPECT_EQ(ShaderProgram::currentShaderProgram(), nullptr);
    }
    program.addShader(GL_VERTEX_SHADER, R"(#version 150
in vec4 va_Position;
layout(std140) uniform Block { vec4 offset; };
out float vo_Id;
void main() { vo_Id = float(gl_VertexID + gl_InstanceID); gl_Position = va_Position + offset; })");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nin float vo_Id;\nout vec4 c;\nvoid main() { c = vec4(vo_Id); }");

    MessageCapture capture;
    // The link goes through the asynchronous pipeline; parallel compiling is dropped in the reduced profile.
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
    GLint current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    EXPECT_EQ(GLuint(current), program.shaderProgramID());

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
              QStringList{QString("[ !! ] Assertion 'itFind != this->_uniformBlockBindingIndices.end()' failed: "
                                  "Trying to get uniformBlockIndex %1 on shader %2. Does not exist.")
                              .arg(block + 5)
                              .arg(program.shaderProgramID())});

    program.unbind();
    EXPECT_EQ(ShaderProgram::currentShaderProgram(), nullptr);
}

// Runs in a child process started by the test below: one process = one cold or warm start.
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
        helper.start(VYX_TEST_HELPER_PROCESS, arguments);
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
    ShaderCacheManager& cache = ShaderCacheManager::Instance();
    cache.setCacheParentDirectory(QDir(parent.path()));
    const QDir folder = cache.cacheDirectory();

    auto link = [](bool* fromCache) {
        GLSLMacroProcessor mp;
        ShaderProgram program;
        addNoiseProgram(program, mp);
        *fromCache = program.cachedLoadLink();
        EXPECT_TRUE(program.isLinked());
    };
    bool fromCache = true;
    link(&fromCache);
    EXPECT_FALSE(fromCache);
    const QStringList files = folder.entryList(QDir::Files);
    ASSERT_EQ(files.size(), 1);
    const QString path = folder.absoluteFilePath(files.front());
    QFile(path).resize(QFileInfo(path).size() / 2);
    link(&fromCache);
    EXPECT_FALSE(fromCache) << "a truncated binary";

    const QList<QByteArray> foreign = {QByteArray("ab"), QByteArray(4096, '\x5a') + QByteArray("\x00\x00\x87\x40", 4)};
    for (const QByteArray& bytes : foreign) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
        file.close();
        link(&fromCache);
        EXPECT_FALSE(fromCache);
    }
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    link(&fromCache);
    EXPECT_TRUE(fromCache) << "the fallback rewrote a good binary";

    // Read-only mode compiles without touching the cache.
    QFile::remove(path);
    setenv("TARN_READ_ONLY", "1", 1);
    MessageCapture capture;
    link(&fromCache);
    unsetenv("TARN_READ_ONLY");
    EXPECT_FALSE(fromCache);
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
