#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::CallRecorder;
using VyxTest::glInteger;

namespace {

class TextureTest : public VyxTest::GLTest
{
protected:
    // The 2D texture bound on a unit, read from GL.
    static GLint boundOnUnit(int unit)
    {
        const GLint active = glInteger(GL_ACTIVE_TEXTURE);
        glActiveTexture(GL_TEXTURE0 + unit);
        const GLint name = glInteger(GL_TEXTURE_BINDING_2D);
        glActiveTexture(active);
        return name;
    }

    static std::unique_ptr<Texture> newTexture2D()
    {
        auto texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_2D);
        return texture;
    }

    VyxTest::MessageCapture capture;
};

} // namespace

TEST_F(TextureTest, NestedBindsShareOneUnitAndBindOnce)
{
    auto texture = newTexture2D();
    CallRecorder<&_ptrc_glBindTexture> bindTexture;
    ASSERT_TRUE(texture->bind());
    ASSERT_TRUE(texture->bind());
    EXPECT_EQ(bindTexture.count(), 1u);
    EXPECT_EQ(texture->unit(), 0);
    EXPECT_EQ(boundOnUnit(0), static_cast<GLint>(texture->textureID()));

    EXPECT_TRUE(texture->unbind());
    EXPECT_EQ(boundOnUnit(0), static_cast<GLint>(texture->textureID()));
    EXPECT_TRUE(texture->unbind());
    EXPECT_EQ(boundOnUnit(0), 0);
    EXPECT_EQ(bindTexture.count(), 2u);

    CallRecorder<&_ptrc_glActiveTexture> activeTexture;
    EXPECT_FALSE(texture->unbind());
    EXPECT_EQ(texture->unit(), -1);
    EXPECT_EQ(activeTexture.count(), 0u);
    EXPECT_EQ(bindTexture.count(), 2u);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("contextInfo.textureToUnitMaps.contains(this->_textureID)",
                                     "Texture has not been bound on unbind"),
                           assertionText("contextInfo.textureToUnitMaps.contains(this->_textureID)",
                                     "Texture has not been bound on unit()")}));
}

TEST_F(TextureTest, UnitsGoLowestFirstAreReusedAndRunOut)
{
    const int maxUnits = glInteger(GL_MAX_TEXTURE_IMAGE_UNITS);
    ASSERT_GT(maxUnits, 5);
    std::vector<std::unique_ptr<Texture>> textures;
    for (int i = 0; i <= maxUnits; ++i)
        textures.push_back(newTexture2D());
    for (int i = 0; i < maxUnits; ++i) {
        ASSERT_TRUE(textures[i]->bind());
        EXPECT_EQ(glInteger(GL_ACTIVE_TEXTURE), GL_TEXTURE0 + i);
        EXPECT_EQ(boundOnUnit(i), static_cast<GLint>(textures[i]->textureID()));
    }
    Texture& extra = *textures[maxUnits];
    EXPECT_FALSE(extra.bind());
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"There is no available texture units"});

    ASSERT_TRUE(textures[5]->unbind());
    ASSERT_TRUE(textures[3]->unbind());
    ASSERT_TRUE(extra.bind());
    EXPECT_EQ(extra.unit(), 3);
    EXPECT_EQ(boundOnUnit(3), static_cast<GLint>(extra.textureID()));
    ASSERT_TRUE(textures[3]->bind());
    EXPECT_EQ(textures[3]->unit(), 5);
    EXPECT_TRUE(capture.bodies(QtCriticalMsg).isEmpty());
}

TEST_F(TextureTest, CreateOperationsMakeTheStorageAsked)
{
    using VyxTest::levelParameter;
    Texture flat, layers, multisample;
    flat.create2D(GL_TEXTURE_2D, GL_RGBA16F, 8, 4);
    layers.create3D(GL_TEXTURE_2D_ARRAY, GL_R32F, 4, 2, 3);
    multisample.create2DMultisample(GL_TEXTURE_2D_MULTISAMPLE, GL_RGBA8, 4, 4, 4);
    EXPECT_EQ(std::make_pair(levelParameter(&flat, GL_TEXTURE_WIDTH), levelParameter(&flat, GL_TEXTURE_HEIGHT)), std::make_pair(8, 4));
    EXPECT_EQ(levelParameter(&flat, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA16F);
    EXPECT_EQ(levelParameter(&layers, GL_TEXTURE_DEPTH), 3);
    EXPECT_EQ(levelParameter(&layers, GL_TEXTURE_INTERNAL_FORMAT), GL_R32F);
    EXPECT_EQ(levelParameter(&multisample, GL_TEXTURE_WIDTH), 4);
    EXPECT_GE(levelParameter(&multisample, GL_TEXTURE_SAMPLES), 4);
    EXPECT_TRUE(capture.messages().empty());
}

TEST_F(TextureTest, MisuseIsReportedAndNamesAreNotLeaked)
{
    Texture nothing(0u);
    EXPECT_FALSE(nothing.bind());
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("textureID != 0", "Texture ID was zero, can't wrap a non-existent texture"),
                           assertionText("0u != this->_textureID", "Texutre is NULL on bind")}));

    // Managed names are proven deleted by the fixture's name ledger; a wrapped one must stay.
    GLuint wrappedName = 0;
    glGenTextures(1, &wrappedName);
    {
        Texture managed, wrapped(wrappedName);
        managed.create2D(GL_TEXTURE_2D, GL_RGBA8, 2, 2);
        wrapped.setTarget(GL_TEXTURE_2D);
        ASSERT_TRUE(wrapped.bind() && wrapped.unbind());
        EXPECT_EQ(Texture::NumAlive(), 3);
    }
    EXPECT_EQ(Texture::NumAlive(), 1);
    EXPECT_TRUE(glIsTexture(wrappedName));
    glDeleteTextures(1, &wrappedName);
}
