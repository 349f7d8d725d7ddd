#include "gl/glloader.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <vector>

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::glInteger;
using VyxTest::levelParameter;

namespace {

class FramebufferObjectTest : public VyxTest::GLTest
{
protected:
    static GLint attachmentParameter(GLenum point, GLenum parameter)
    {
        GLint value = -1;
        glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, point, parameter, &value);
        return value;
    }

    VyxTest::MessageCapture capture;
};

} // namespace

TEST_F(FramebufferObjectTest, DrawBuffersFollowColourAttachmentsAndReceiveClears)
{
    FramebufferObject fbo;
    ASSERT_TRUE(fbo.bind());
    Texture* red = fbo.createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4, 4);
    Texture* depth = fbo.createTexture2D(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, 4, 4);
    Texture* green = fbo.createTexture2D(GL_COLOR_ATTACHMENT2, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4, 4);
    ASSERT_TRUE(red && depth && green);
    EXPECT_EQ(fbo.drawBuffers(), (QVector<unsigned int>{GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT2}));
    ASSERT_TRUE(fbo.setDrawBuffers());
    EXPECT_EQ(glInteger(GL_DRAW_BUFFER0), GL_COLOR_ATTACHMENT0);
    EXPECT_EQ(glInteger(GL_DRAW_BUFFER1), GL_COLOR_ATTACHMENT2);
    EXPECT_TRUE(fbo.isComplete());
    EXPECT_EQ(glInteger(GL_FRAMEBUFFER_BINDING), static_cast<GLint>(fbo.getFBO()));

    const GLfloat redColour[4] = {1, 0, 0, 1}, greenColour[4] = {0, 1, 0, 1};
    glClearBufferfv(GL_COLOR, 0, redColour);
    glClearBufferfv(GL_COLOR, 1, greenColour);
    for (auto [texture, rgba] : {std::pair{red, std::vector<int>{255, 0, 0, 255}}, std::pair{green, std::vector<int>{0, 255, 0, 255}}}) {
        const auto texels = VyxTest::texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, 64);
        EXPECT_EQ(std::vector<int>(texels.end() - 4, texels.end()), rgba);
    }

    // The storage made for the depth attachment, as GL sees it.
    EXPECT_EQ(levelParameter(depth, GL_TEXTURE_WIDTH), 4);
    EXPECT_EQ(levelParameter(depth, GL_TEXTURE_INTERNAL_FORMAT), GL_DEPTH_COMPONENT32F);

    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT0), red);
    EXPECT_EQ(fbo.drawBuffers(), QVector<unsigned int>{GL_COLOR_ATTACHMENT2});
    EXPECT_EQ(attachmentParameter(GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE), GL_NONE);
    delete red;
    fbo.detachAndReleaseAll();
    EXPECT_TRUE(fbo.attachmentPoints().isEmpty());
    EXPECT_TRUE(fbo.unbind());
    EXPECT_EQ(glInteger(GL_FRAMEBUFFER_BINDING), 0);
    EXPECT_EQ(Texture::NumAlive(), 0);
    EXPECT_TRUE(capture.messages().empty());
}

TEST_F(FramebufferObjectTest, LayersAndUpdatesAttachWhatGLReports)
{
    FramebufferObject fbo;
    ASSERT_TRUE(fbo.bind());
    Texture array;
    array.create3D(GL_TEXTURE_2D_ARRAY, GL_RGBA8, 4, 4, 3);
    auto flat = VyxTest::texture2D(4, 4, GL_RGBA8);

    EXPECT_FALSE(fbo.attach(&array, GL_COLOR_ATTACHMENT0, 0));
    EXPECT_FALSE(fbo.attachLayers(flat.get(), GL_COLOR_ATTACHMENT0, 0));
    EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT0));
    EXPECT_EQ(FramebufferObject::NumFBOTextures(), 0);
    ASSERT_TRUE(fbo.attach3D(&array, GL_COLOR_ATTACHMENT0, 0, 2));
    EXPECT_EQ(attachmentParameter(GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_TEXTURE_LAYER), 2);
    EXPECT_FALSE(fbo.attach(flat.get(), GL_COLOR_ATTACHMENT0, 0));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("false", "Texture Target 0x8C1A is not supported by FramebufferObject::attach() use "
                                              "FramebufferObject::attach3D()"),
                           assertionText("false", "Texture Target 0xDE1 is not supported by "
                                              "FramebufferObject::attachLayer() use FramebufferObject::attach()"),
                           assertionText("false == this->_attachments.contains(attachmentPoint)",
                                     "Framebuffer Object already has attachment at 36064")}));

    ASSERT_TRUE(fbo.attachUpdate(flat.get(), GL_COLOR_ATTACHMENT0, 0));
    EXPECT_EQ(attachmentParameter(GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME),
              static_cast<GLint>(flat->textureID()));
    EXPECT_EQ(fbo.attachment(GL_COLOR_ATTACHMENT0), flat.get());
    EXPECT_EQ(FramebufferObject::NumActiveFBOTextures(), 1);

    Texture* layered = fbo.createTexture3D(GL_COLOR_ATTACHMENT1, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4, 4, 5);
    ASSERT_NE(layered, nullptr);
    EXPECT_EQ(attachmentParameter(GL_COLOR_ATTACHMENT1, GL_FRAMEBUFFER_ATTACHMENT_LAYERED), GL_TRUE);
    EXPECT_EQ(levelParameter(layered, GL_TEXTURE_DEPTH), 5);

    EXPECT_EQ(FramebufferObject::NumFBOTextures(), 3);
    EXPECT_EQ(FramebufferObject::NumActiveFBOTextures(), 2);
    EXPECT_EQ(fbo.detachAndRelease(GL_COLOR_ATTACHMENT1), nullptr);
    fbo.detachAll();
    EXPECT_EQ(FramebufferObject::NumFBOTextures(), 3);
    EXPECT_EQ(FramebufferObject::NumActiveFBOTextures(), 0);
    FramebufferObject::ResetNumFBOTextures();
    EXPECT_EQ(FramebufferObject::NumFBOTextures(), 0);
    EXPECT_TRUE(fbo.unbind());
}

TEST_F(FramebufferObjectTest, MisuseIsRefusedAndNamesAreNotLeaked)
{
    auto texture = VyxTest::texture2D(4, 4, GL_RGBA8);
    // Managed names are proven deleted by the fixture's name ledger; an adopted one must stay.
    GLuint adoptedName = 0;
    glGenFramebuffers(1, &adoptedName);
    {
        FramebufferObject fbo;
        FramebufferObject second;
        FramebufferObject adopted(adoptedName);
        EXPECT_EQ(FramebufferObject::NumAlive(), 3);
        EXPECT_FALSE(second.isComplete());
        EXPECT_EQ(glInteger(GL_FRAMEBUFFER_BINDING), 0);
        EXPECT_FALSE(fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0));
        ASSERT_TRUE(adopted.bind());
        EXPECT_FALSE(adopted.bind());
        EXPECT_EQ(adopted.detach(GL_COLOR_ATTACHMENT0), nullptr);
        ASSERT_TRUE(adopted.unbind());
        EXPECT_EQ(capture.bodies(QtCriticalMsg),
                  (QStringList{assertionText("true == this->_fboBound", "Framebuffer Object is not bound on attach"),
                               assertionText("false == this->_fboBound", "Framebuffer Object is already bound on bind"),
                               assertionText("true == this->_attachments.contains(attachmentPoint)",
                                         "Framebuffer Object has nothing attached to attachment at 36064")}));
    }
    EXPECT_EQ(FramebufferObject::NumAlive(), 0);
    EXPECT_TRUE(glIsFramebuffer(adoptedName));
    glDeleteFramebuffers(1, &adoptedName);
}

TEST_F(FramebufferObjectTest, RenderbuffersAreMultisampledOwnedAndChecked)
{
    GLuint colourName = 0;
    {
        FramebufferObject fbo;
        ASSERT_TRUE(fbo.bind());
        ASSERT_TRUE(fbo.createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, 8, 4, 4));
        ASSERT_TRUE(fbo.createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, 8, 4, 4));
        EXPECT_TRUE(fbo.isComplete());
        EXPECT_EQ(fbo.drawBuffers(), QVector<unsigned int>{GL_COLOR_ATTACHMENT0});
        EXPECT_EQ(attachmentParameter(GL_DEPTH_ATTACHMENT, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE), GL_RENDERBUFFER);
        colourName = GLuint(attachmentParameter(GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME));
        glBindRenderbuffer(GL_RENDERBUFFER, colourName);
        GLint samples = 0, width = 0;
        glGetRenderbufferParameteriv(GL_RENDERBUFFER, GL_RENDERBUFFER_SAMPLES, &samples);
        glGetRenderbufferParameteriv(GL_RENDERBUFFER, GL_RENDERBUFFER_WIDTH, &width);
        glBindRenderbuffer(GL_RENDERBUFFER, 0);
        EXPECT_GE(samples, 4);
        EXPECT_EQ(width, 8);

        // Detaching deletes the renderbuffer; the point is free again.
        const GLuint depthName = GLuint(attachmentParameter(GL_DEPTH_ATTACHMENT, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME));
        EXPECT_EQ(fbo.detach(GL_DEPTH_ATTACHMENT), nullptr);
        EXPECT_FALSE(glIsRenderbuffer(depthName));
        EXPECT_FALSE(fbo.hasAttachment(GL_DEPTH_ATTACHMENT));

        // Refused: an occupied point, an empty size, more samples than GL has.
        EXPECT_FALSE(fbo.createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, 8, 4));
        EXPECT_FALSE(fbo.createRenderbuffer(GL_COLOR_ATTACHMENT1, GL_RGBA8, 0, 4));
        EXPECT_FALSE(fbo.createRenderbuffer(GL_COLOR_ATTACHMENT1, GL_RGBA8, 8, 4, glInteger(GL_MAX_SAMPLES) + 1));
        EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT1));
        EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 3);
        EXPECT_TRUE(fbo.unbind());
    }
    EXPECT_FALSE(glIsRenderbuffer(colourName)) << "the framebuffer deletes what it made";
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}
