#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textureio/textureutilities.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QProcess>

#include <optional>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::CallRecorder;
using VyxTest::levelParameter;

namespace {

class TextureUtilitiesTest : public VyxTest::GLTest
{
protected:
    // A 2x2 RGBA8 texture: bottom row (row 0) black and white, top row red and blue.
    static Texture* checker()
    {
        const GLubyte texels[] = {0, 0, 0, 255, 255, 255, 255, 255, 255, 0, 0, 128, 0, 0, 255, 255};
        return VyxTest::texture2D(2, 2, GL_RGBA8, GL_UNSIGNED_BYTE, texels).release();
    }

    static std::vector<int> texels(Texture* texture, int count)
    {
        const auto bytes = VyxTest::texImage<GLubyte>(texture, GL_RGBA, GL_UNSIGNED_BYTE, size_t(count) * 4);
        return std::vector<int>(bytes.begin(), bytes.end());
    }
};

PFNVYXGLDRAWARRAYSPROC realDrawArrays = nullptr;
// Draws, then makes the driver record an error of its own.
void VYX_APIENTRY drawArraysWithError(GLenum mode, GLint first, GLsizei count)
{
    realDrawArrays(mode, first, count);
    _ptrc_glEnable(0xFFFF);
}

} // namespace

TEST_F(TextureUtilitiesTest, SolidColourTruncatesToBytes)
{
    Texture* texture = SolidColorTexture(1.0f, 0.5f, 0.0f, 0.999f);
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(texels(texture, 1), (std::vector<int>{255, 127, 0, 254}));
    EXPECT_EQ(VyxTest::glInteger(GL_UNPACK_ALIGNMENT), 4);
    delete texture;
}

TEST_F(TextureUtilitiesTest, WritableCopyTakesSizeFormatAndParameters)
{
    Texture source;
    source.create2D(GL_TEXTURE_2D, GL_RGBA16F, 8, 4);
    source.bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    source.unbind();
    Texture* copy = WritableCopyOfTexture(&source, 0, 0);
    ASSERT_NE(copy, nullptr);
    GLint wrapT = 0;
    copy->bind();
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, &wrapT);
    copy->unbind();
    EXPECT_EQ(wrapT, GL_CLAMP_TO_EDGE);
    EXPECT_EQ(levelParameter(copy, GL_TEXTURE_WIDTH) * 10 + levelParameter(copy, GL_TEXTURE_HEIGHT), 84);
    EXPECT_EQ(levelParameter(copy, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA16F);
    delete copy;

    // A compressed source gives a plain RGBA copy.
    Texture compressed;
    compressed.setTarget(GL_TEXTURE_2D);
    compressed.bind();
    const GLubyte block[8] = {255, 0, 0, 0, 0, 0, 0, 0};
    glCompressedTexImage2D(GL_TEXTURE_2D, 0, GL_COMPRESSED_RED_RGTC1, 4, 4, 0, 8, block);
    compressed.unbind();
    copy = WritableCopyOfTexture(&compressed, 0, 0);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(levelParameter(copy, GL_TEXTURE_COMPRESSED), GL_FALSE);
    const GLint format = levelParameter(copy, GL_TEXTURE_INTERNAL_FORMAT);
    EXPECT_TRUE(format == GL_RGBA || format == GL_RGBA8) << std::hex << format;
    delete copy;
}

// The texture is replaced by a flipped copy (the original deleted) in its own format: also ones
// the internal-format tables do not list, and sRGB storage, which must not darken.
TEST_F(TextureUtilitiesTest, FlipYReplacesTheTextureByAFlippedCopyInItsFormat)
{
    const GLubyte rows[] = {10, 20, 30, 40, 200, 210, 220, 230};
    for (GLenum internalFormat : {GLenum(GL_RGBA8), GLenum(GL_RGB8), GLenum(GL_SRGB8_ALPHA8), GLenum(GL_SRGB8)}) {
        Texture* texture = VyxTest::texture2D(1, 2, internalFormat, GL_UNSIGNED_BYTE, rows).release();
        Texture* const original = texture;
        const int alive = Texture::NumAlive();
        ASSERT_TRUE(FlipY(texture)) << std::hex << internalFormat;
        EXPECT_NE(texture, original);
        EXPECT_EQ(Texture::NumAlive(), alive);
        EXPECT_EQ(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT), GLint(internalFormat));
        const std::vector<int> flipped = texels(texture, 2);
        const bool hasAlpha = internalFormat == GL_SRGB8_ALPHA8 || internalFormat == GL_RGBA8;
        EXPECT_EQ(flipped, (std::vector<int>{200, 210, 220, hasAlpha ? 230 : 255, 10, 20, 30, hasAlpha ? 40 : 255}))
            << std::hex << internalFormat;
        delete texture;
    }
    EXPECT_FALSE(glIsEnabled(GL_FRAMEBUFFER_SRGB));
}

TEST_F(TextureUtilitiesTest, RemapColorRangeScalesColourAndKeepsAlpha)
{
    Texture* texture = checker();
    Texture* original = texture;
    EXPECT_FALSE(RemapColorRange(texture, 0.0f, 1.0f));
    EXPECT_EQ(texture, original);
    Texture* none = nullptr;
    EXPECT_FALSE(RemapColorRange(none, 0.5f, 1.0f));

    // Raising the range is proven through the loaders; an inverted range turns colour over and keeps alpha.
    ASSERT_TRUE(RemapColorRange(texture, 1.0f, 0.0f));
    const std::vector<int> inverted = texels(texture, 4);
    EXPECT_EQ(std::vector<int>(inverted.begin() + 4, inverted.begin() + 12), (std::vector<int>{0, 0, 0, 255, 0, 255, 255, 128}));
    delete texture;
}

TEST_F(TextureUtilitiesTest, BrokenShadersAreReportedAndGiveNoProgram)
{
    VyxTest::MessageCapture capture;
    EXPECT_EQ(MakeTextureShaderFromString("#version 150\nvoid main() { undeclared = 1.0; }"), nullptr);
    const QStringList warnings = capture.bodies(QtWarningMsg);
    ASSERT_FALSE(warnings.isEmpty());
    EXPECT_TRUE(warnings.last().startsWith("shader program failed to compile:\n")) << warnings.last().toStdString();
}

TEST_F(TextureUtilitiesTest, FailedPassesLeaveTheSourceAsItWas)
{
    enum Failure { NoQuad, IncompleteFramebuffer, ShaderDoesNotBuild, GLErrorInPass };
    const char* const reports[] = {"Vertex Array Object is NULL on bind", "Framebuffer for the texture pass is incomplete",
                                   "shader program failed to compile", "glError: 0x500"};
    for (Failure failure : {NoQuad, IncompleteFramebuffer, ShaderDoesNotBuild, GLErrorInPass}) {
        for (bool flip : {true, false}) {
            SCOPED_TRACE(testing::Message() << "failure " << failure << (flip ? " in FlipY" : " in RemapColorRange"));
            OpenGLDeviceContext::resetContext(); // the quad is made while the failure is forced
            Texture* texture = checker();
            Texture* const original = texture;
            const GLuint name = texture->textureID();
            const std::vector<int> before = texels(texture, 4);
            const int alive = Texture::NumAlive();
            VyxTest::MessageCapture capture;
            bool reworked = true;
            {
                std::optional<CallRecorder<&_ptrc_glGenVertexArrays>> noVertexArrayName;
                std::optional<CallRecorder<&_ptrc_glCheckFramebufferStatus>> noStatus;
                std::optional<CallRecorder<&_ptrc_glCompileShader>> noCompile;
                realDrawArrays = _ptrc_glDrawArrays;
                std::optional<VyxTest::PointerSwap<PFNVYXGLDRAWARRAYSPROC>> erroringDraw;
                switch (failure) {
                case NoQuad: noVertexArrayName.emplace(false); break;
                case IncompleteFramebuffer: noStatus.emplace(false); break;
                case ShaderDoesNotBuild: noCompile.emplace(false); break;
                case GLErrorInPass: erroringDraw.emplace(_ptrc_glDrawArrays, drawArraysWithError); break;
                }
                reworked = flip ? FlipY(texture) : RemapColorRange(texture, 0.5f, 1.0f);
            }
            EXPECT_FALSE(reworked);
            EXPECT_TRUE(capture.texts().join("\n").contains(reports[failure])) << capture.texts().join("\n").toStdString();
            ASSERT_EQ(texture, original);
            EXPECT_EQ(texture->textureID(), name);
            EXPECT_EQ(texels(texture, 4), before);
            EXPECT_EQ(Texture::NumAlive(), alive) << "the unused copy is gone";
            delete texture;
        }
    }
}

// Run as a child process by the test below: a host that draws with the cached quad and simply
// returns from main.
TEST(TextureUtilitiesExit, HelperProcess)
{
    if (!qEnvironmentVariableIsSet("VYX_EXIT_HELPER"))
        GTEST_SKIP() << "only run as a helper process";
    EXPECT_TRUE(OpenGLDeviceContext::current().isNull()) << "asked before the driver is loaded";
    HeadlessGLContext context;
    ASSERT_TRUE(context.create() && context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
    Texture* texture = SolidColorTexture(1.0f, 0.0f, 0.0f, 1.0f);
    ASSERT_TRUE(FlipY(texture));
    delete texture;
}

TEST(TextureUtilitiesExit, ProcessThatDrewWithTheQuadExitsCleanly)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("VYX_EXIT_HELPER", "1");
    QProcess helper;
    helper.setProcessEnvironment(environment);
    helper.setProcessChannelMode(QProcess::MergedChannels);
    helper.start(VyxTest::glTestProgram(), {"--gtest_filter=TextureUtilitiesExit.HelperProcess"});
    ASSERT_TRUE(helper.waitForFinished(120000));
    const std::string output = helper.readAll().toStdString();
    EXPECT_EQ(helper.exitStatus(), QProcess::NormalExit) << output;
    EXPECT_EQ(helper.exitCode(), 0) << output;
    EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
}
