#include "gl/glloader.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/array2dtexturemanager.h"
#include "gl/textures/bindlesstexturemanager.h"
#include "gl/textures/samplertexturemanager.h"
#include "gl/textures/texturepool.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QDir>
#include <QImage>
#include <QTemporaryDir>

#include <algorithm>
#include <string>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::MessageCapture;

namespace {

// Opens the protected book-keeping to the tests.
class InspectableManager : public SamplerTextureManager
{
public:
    using TextureManager::maxToken;
    using TextureManager::reserveToken;
};

class TextureManagerTest : public VyxTest::GLTest
{
protected:
    static void writeImage(const QString& path, int width, int height, QColor colour)
    {
        QImage image(width, height, QImage::Format_ARGB32);
        image.fill(colour);
        ASSERT_TRUE(image.save(path, "PNG"));
    }

    InspectableManager manager;
};

} // namespace

TEST_F(TextureManagerTest, ReleasedTokensAreReusedAndTheTopOfTheRangeShrinks)
{
    // Token 0 is white, made by the constructor.
    const TextureToken white = manager.tokenForColor(Qt::white);
    EXPECT_EQ(white, TextureToken(0));
    const TextureToken one = manager.tokenForColor(Qt::red), two = manager.tokenForColor(Qt::green);
    const TextureToken three = manager.tokenForColor(Qt::blue);
    EXPECT_EQ(three, TextureToken(3));

    manager.deleteTexture(two);
    EXPECT_EQ(manager.maxToken(), TextureToken(4)); // two is below a live token: kept free
    manager.deleteTexture(three);
    EXPECT_EQ(manager.maxToken(), TextureToken(2)); // three and the free two both fall off the top
    EXPECT_EQ(manager.tokenForColor(Qt::yellow), TextureToken(2));
    manager.deleteTexture(white);
    EXPECT_EQ(manager.tokenForColor(Qt::cyan), white); // the hole at 0 is filled first
    EXPECT_EQ(manager.tokenForColor(Qt::magenta), TextureToken(3));

    // The null texture has the null token, with no token issued and nothing logged.
    MessageCapture capture;
    EXPECT_TRUE(manager.tokenForTexture(nullptr).isNull());
    EXPECT_TRUE(capture.texts().isEmpty());
    EXPECT_EQ(manager.textureForToken(TextureToken()), nullptr);
    EXPECT_EQ(manager.textureForToken(TextureToken(99)), nullptr);

    // A token deleted twice or never issued lands among the free tokens all the same; only the
    // one never issued is reported.
    manager.deleteTexture(one);
    manager.deleteTexture(one);
    EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 0) << "one is below the top";
    manager.deleteTexture(TextureToken(7));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{VyxTest::assertionText("token.token < this->_maxToken.token",
                                                 "Delete token 7 but only 4 reserved!")});
    const QSet<TextureToken> reused{manager.reserveToken(), manager.reserveToken()};
    EXPECT_EQ(reused, (QSet<TextureToken>{one, TextureToken(7)}));
}

TEST_F(TextureManagerTest, ImageTokensFollowTheFileNotItsSpellingAndLoadWhenAskedFor)
{
    QTemporaryDir dir;
    ASSERT_TRUE(QDir(dir.path()).mkpath("sub") && QDir(dir.path()).mkpath("other"));
    writeImage(dir.filePath("sub/a.png"), 2, 2, Qt::red);
    writeImage(dir.filePath("b.png"), 2, 2, Qt::blue);
    manager.setTextureRoot(dir.path());

    const TextureToken a = manager.tokenForImage("sub/a.png", {});
    EXPECT_EQ(manager.tokenForImage("other/../sub/a.png", {}), a);
    EXPECT_EQ(manager.tokenForImage(dir.filePath("sub/a.png"), {}), a);
    // A foreign absolute path falls back to its file name under the root.
    const TextureToken b = manager.tokenForImage("D:\\assets\\b.png", {});
    EXPECT_EQ(manager.tokenForImage("/nowhere/b.png", {}), b);
    EXPECT_NE(a, b);
    EXPECT_EQ(manager.textureFiles().size(), 2);

    // Nothing is loaded until the texture is asked for; then it is read-only and cached.
    const int alive = Texture::NumAlive();
    Texture* texture = manager.textureForToken(a);
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(Texture::NumAlive(), alive + 1);
    EXPECT_TRUE(texture->isReadOnly());
    EXPECT_EQ(manager.textureForImage("sub/a.png", {}), texture);
    EXPECT_EQ(manager.tokenForTexture(texture), a);

    // A missing file is the white token, with a warning.
    MessageCapture capture;
    EXPECT_EQ(manager.tokenForImage("missing.png", {}), manager.tokenForColor(Qt::white));
    EXPECT_TRUE(capture.bodies(QtWarningMsg).contains("Cannot load missing.png"));

    // A corrupt file has a token of its own, which stands in white until the file loads.
    const QString path = VyxTest::writeFile(dir.filePath("broken.png"), "not a picture at all");
    const TextureToken token = manager.tokenForImage(path, {});
    Texture* white = manager.textureForColor(Qt::white);
    EXPECT_EQ(manager.textureForToken(token), white);
    EXPECT_EQ(manager.textureForToken(token), white);
    EXPECT_EQ(capture.bodies(QtWarningMsg).count("Failed to load " + path), 2) << "tried again each time";

    writeImage(path, 4, 4, Qt::green);
    Texture* loaded = manager.textureForToken(token);
    ASSERT_NE(loaded, nullptr);
    EXPECT_NE(loaded, white);
    EXPECT_EQ(manager.tokenForTexture(loaded), token);
}

TEST_F(TextureManagerTest, DeletionKeepsItsColourQuirks)
{
    // A translucent colour is filed under rgba but removed under rgb: its entry outlives the
    // token, so asking again hands out the released token, which now has no texture.
    const QColor translucent(255, 0, 0, 128);
    const TextureToken red = manager.tokenForColor(translucent);
    const TextureToken above = manager.tokenForColor(Qt::gray);
    ASSERT_NE(manager.textureForToken(red), nullptr);
    manager.deleteTexture(red);
    EXPECT_EQ(manager.tokenForColor(translucent), red);
    EXPECT_EQ(manager.textureForToken(red), nullptr);

    // Deleting any materialised non-colour token drops the entry of opaque black.
    const TextureToken black = manager.tokenForColor(Qt::black);
    auto* own = new Texture();
    own->create2D(GL_TEXTURE_2D, GL_RGBA8, 1, 1);
    const TextureToken ownToken = manager.tokenForTexture(own);
    const int alive = Texture::NumAlive();
    manager.deleteTexture(own);
    EXPECT_EQ(Texture::NumAlive(), alive - 1) << "managed textures are deleted with their token";
    EXPECT_NE(manager.tokenForColor(Qt::black), black);

    // A colour never materialised keeps its entry though its token is released.
    const TextureToken blue = manager.tokenForColor(Qt::blue);
    manager.deleteTexture(blue);
    EXPECT_EQ(manager.tokenForColor(Qt::blue), blue);
    EXPECT_NE(above, ownToken);
}

TEST_F(TextureManagerTest, PoolRecyclesByKeyAndReferenceCount)
{
    Texture* first = manager.tempTexture(RGBA16F, 8, 4);
    Texture* second = manager.tempTexture(RGBA16F, 8, 4);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first, second) << "first is in use";
    EXPECT_EQ(first->target(), GLenum(GL_TEXTURE_2D));
    Texture* layered = manager.tempTexture(RGBA16F, 8, 4, 3);
    ASSERT_NE(layered, nullptr);
    EXPECT_EQ(layered->target(), GLenum(GL_TEXTURE_2D_ARRAY));
    EXPECT_EQ(manager.tempTexture(RGBA16F, 8, 4, 0), nullptr);

    manager.addTempTextureRef(first, 2);
    manager.releaseTempTextureRef(first, 2);
    manager.addTempTextureRef(second, 0);
    manager.releaseTempTextureRef(second, 5);
    manager.releaseTempTextureRef(second, 1); // no longer in use: ignored
    EXPECT_EQ(manager.pool()->referenceCount(first), 1);
    manager.releaseTempTextureRef(layered, 1);
    EXPECT_EQ(manager.tempTexture(RGBA16F, 8, 4, 3), layered);
    EXPECT_EQ(manager.tempTexture(RGBA16F, 8, 4), second) << "recycled by its key";
    ASSERT_NE(manager.tempTexture(R, 8, 4), nullptr);
    manager.releaseTempTextureRef(manager.tempTexture(RGBA16F, 4, 8), 1);

    // Only the 4x8 texture is free.
    const int alive = Texture::NumAlive();
    manager.deleteUnusedTempTextures();
    EXPECT_EQ(Texture::NumAlive(), alive - 1);
}

TEST_F(TextureManagerTest, FramebuffersHandPoolTexturesBackAndDeleteOthers)
{
    TextureManager::setInstance(&manager);
    Texture* pooled = manager.tempTexture(RGBA, 4, 4);
    auto* own = new Texture();
    own->create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    {
        FramebufferObject fbo;
        ASSERT_TRUE(fbo.bind());
        ASSERT_TRUE(fbo.attach(pooled, GL_COLOR_ATTACHMENT0, 0));
        ASSERT_TRUE(fbo.attach(own, GL_COLOR_ATTACHMENT1, 0));
        const int alive = Texture::NumAlive();
        EXPECT_EQ(fbo.detachAndRelease(GL_COLOR_ATTACHMENT0), pooled);
        EXPECT_EQ(fbo.detachAndRelease(GL_COLOR_ATTACHMENT1), nullptr);
        EXPECT_EQ(Texture::NumAlive(), alive - 1);
        fbo.unbind();
    }
    EXPECT_EQ(manager.pool()->referenceCount(pooled), 0);
    EXPECT_EQ(manager.tempTexture(RGBA, 4, 4), pooled);
    TextureManager::setInstance(nullptr);
}

TEST_F(TextureManagerTest, TheDefaultInstanceIsTheSamplerManagerWithoutBindlessTextures)
{
    MessageCapture capture;
    TextureManager* instance = TextureManager::Instance();
    auto* sampler = dynamic_cast<SamplerTextureManager*>(instance);
    ASSERT_NE(sampler, nullptr) << "llvmpipe has no bindless textures";
    EXPECT_EQ(sampler->getMaxSlots(), 16);
    EXPECT_EQ(TextureManager::Instance(), instance);
    EXPECT_EQ(capture.texts(QtDebugMsg).value(0), "SamplerTextureManager");
    EXPECT_TRUE(TextureManager::setInstance(&manager));
    TextureManager::setInstance(nullptr);
    delete instance;
}

namespace {

// Stands in for the driver's bindless calls: handles are 0x1000'0000'0000 + the GL name.
struct FakeBindless
{
    // Installs the fakes for its lifetime.
    FakeBindless() : saved(BindlessTextureManager::entryPoints())
    {
        BindlessTextureManager::entryPoints() = {&getHandle, &resident, &nonResident};
        calls.clear();
    }
    ~FakeBindless() { BindlessTextureManager::entryPoints() = saved; }
    static uint64_t handleOf(Texture* texture) { return 0x100000000000ull + texture->textureID(); }

    BindlessTextureManager::EntryPoints saved;
    using Call = std::pair<std::string, uint64_t>;
    static inline std::vector<Call> calls;
    static uint64_t getHandle(unsigned int name)
    {
        calls.emplace_back("handle", name);
        return 0x100000000000ull + name;
    }
    static void resident(uint64_t handle) { calls.emplace_back("resident", handle); }
    static void nonResident(uint64_t handle) { calls.emplace_back("nonresident", handle); }
};

} // namespace

TEST_F(TextureManagerTest, BindlessHandlesAreMadeOnceKeptResidentAndUploadedAsATable)
{
    EXPECT_FALSE(BindlessTextureManager::isSupported()) << "llvmpipe has no bindless textures";
    FakeBindless fake;
    uint64_t blueHandle = 0;
    {
        BindlessTextureManager bindless;
        const TextureToken red = bindless.tokenForColor(Qt::red), blue = bindless.tokenForColor(Qt::blue);
        const QSet<TextureToken> tokens{red, blue};
        ASSERT_TRUE(bindless.bind(tokens));
        const uint64_t redHandle = FakeBindless::handleOf(bindless.textureForToken(red));
        EXPECT_EQ(bindless.handle(red), redHandle);
        EXPECT_EQ(bindless.handle(TextureToken(0)), 0u) << "white was never bound";
        ASSERT_EQ(FakeBindless::calls.size(), 4u);
        EXPECT_EQ(std::count_if(FakeBindless::calls.begin(), FakeBindless::calls.end(),
                                [&](const auto& call) { return call == FakeBindless::Call("resident", redHandle); }),
                  1);

        // The table goes up as two words a token, once, and is read through a texture buffer.
        VyxTest::CallRecorder<&_ptrc_glBufferData> bufferData;
        VyxTest::CallRecorder<&_ptrc_glTexBuffer> texBuffer;
        ASSERT_TRUE(bindless.bind(tokens));
        ASSERT_TRUE(bindless.bind(static_cast<ShaderProgram*>(nullptr)));
        bindless.unbind(static_cast<ShaderProgram*>(nullptr));
        bindless.unbind(tokens);
        ASSERT_TRUE(bindless.bind(static_cast<ShaderProgram*>(nullptr)));
        bindless.unbind(static_cast<ShaderProgram*>(nullptr));
        EXPECT_EQ(FakeBindless::calls.size(), 4u) << "a second frame makes no handle and no residency call";
        ASSERT_EQ(bufferData.count(), 1u);
        EXPECT_EQ(std::get<1>(bufferData.calls()[0]), GLsizeiptr(3 * 2 * sizeof(quint32)));
        ASSERT_EQ(texBuffer.count(), 1u);
        EXPECT_EQ(std::get<1>(texBuffer.calls()[0]), GLenum(GL_RG32UI));

        // Revoking the token takes the residency away and clears its entry.
        bindless.deleteTexture(red);
        EXPECT_EQ(FakeBindless::calls.back(), FakeBindless::Call("nonresident", redHandle));
        EXPECT_EQ(bindless.handle(red), 0u);
        blueHandle = bindless.handle(blue);
        FakeBindless::calls.clear();
    }
    EXPECT_EQ(FakeBindless::calls, (std::vector<FakeBindless::Call>{{"nonresident", blueHandle}}))
        << "the manager releases what is still resident, once";
}

TEST_F(TextureManagerTest, ArrayLayersAreSharedByClassFreedWithTheirTokenAndRecopiedWhenDirty)
{
    Array2DTextureManager arrays;
    arrays.setMaxArrays(2);
    std::vector<Texture*> textures;
    QSet<TextureToken> tokens;
    for (int size : {4, 4, 4, 8, 2}) {
        textures.push_back((new Texture())->create2D(GL_TEXTURE_2D, GL_RGBA8, size, size));
        tokens.insert(arrays.tokenForTexture(textures.back()));
    }
    auto* cube = new Texture();
    cube->setTarget(GL_TEXTURE_CUBE_MAP);
    const TextureToken cubeToken = arrays.tokenForTexture(cube);
    tokens.insert(cubeToken);

    MessageCapture capture;
    ASSERT_TRUE(arrays.bind(tokens));
    ASSERT_TRUE(arrays.bind(tokens));
    EXPECT_EQ(arrays.arrayCount(), 3) << "three sizes, three classes";
    const auto first = arrays.placement(arrays.tokenForTexture(textures[0]));
    EXPECT_EQ(arrays.placement(arrays.tokenForTexture(textures[1])).first, first.first);
    EXPECT_EQ(arrays.placement(cubeToken), qMakePair(-1, -1));
    EXPECT_EQ(capture.bodies(QtWarningMsg).filter("cannot be placed in a 2D array texture").size(), 1)
        << "reported once, not every frame";
    ASSERT_TRUE(arrays.bind(static_cast<ShaderProgram*>(nullptr)));
    arrays.unbind(static_cast<ShaderProgram*>(nullptr));
    EXPECT_TRUE(capture.bodies(QtWarningMsg).contains(
        "Requesting 3 texture arrays but only 2 available. Rendering will be incorrect!"));

    // A deleted token's layer goes to the next texture of its class.
    arrays.deleteTexture(textures[0]);
    Texture* next = (new Texture())->create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    const TextureToken nextToken = arrays.tokenForTexture(next);
    ASSERT_TRUE(arrays.bind(QSet<TextureToken>{nextToken}));
    EXPECT_EQ(arrays.placement(nextToken), first);

    // A dirty texture is copied again at its next bind: new contents reach its layer.
    const GLubyte red[4 * 4 * 4] = {255, 0, 0, 255};
    next->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, red);
    next->unbind();
    arrays.dirty(next);
    EXPECT_EQ(arrays.placement(nextToken), qMakePair(-1, -1));
    ASSERT_TRUE(arrays.bind(QSet<TextureToken>{nextToken}));
    ASSERT_EQ(arrays.placement(nextToken), first);
    Texture* array = arrays.arrayTexture(first.first);
    std::vector<GLubyte> layers(size_t(4 * 4 * 4 * VyxTest::levelParameter(array, GL_TEXTURE_DEPTH)));
    array->bind();
    glGetTexImage(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA, GL_UNSIGNED_BYTE, layers.data());
    array->unbind();
    const size_t texel = size_t(first.second) * 4 * 4 * 4;
    EXPECT_EQ(std::vector<GLubyte>(layers.begin() + long(texel), layers.begin() + long(texel) + 4),
              (std::vector<GLubyte>{255, 0, 0, 255}));
    arrays.clear(); // deletes every token's texture
}

TEST_F(TextureManagerTest, BindlessArraysUploadHandlesInsteadOfBindingUnits)
{
    FakeBindless fake;
    auto program = VyxTest::linkedProgram(
        "#version 150\nvoid main() { gl_Position = vec4(0.0); }\n",
        "#version 150\nuniform uvec2 u_Array2DTextureHandles[8];\nuniform isampler2D u_Array2DTokenTable;\n"
        "out vec4 o;\nvoid main() { o = vec4(u_Array2DTextureHandles[1], 0u, 0u) + vec4(texelFetch(u_Array2DTokenTable, ivec2(0), 0)); }\n");
    std::vector<uint64_t> released;
    {
        Array2DTextureManager arrays;
        arrays.setBindless(true);
        EXPECT_EQ(arrays.getShaderFile(), "Array2DTextureManagerBindless.glslc");
        const TextureToken small = arrays.tokenForTexture((new Texture())->create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4));
        const TextureToken large = arrays.tokenForTexture((new Texture())->create2D(GL_TEXTURE_2D, GL_RGBA8, 8, 8));
        QSet<TextureToken> tokens{small, large};
        ASSERT_TRUE(arrays.bind(tokens));
        const int smallArray = arrays.placement(small).first, largeArray = arrays.placement(large).first;
        ASSERT_TRUE(program->bind());
        VyxTest::CallRecorder<&_ptrc_glBindTexture> bindTexture;
        for (int frame = 0; frame < 2; ++frame) {
            ASSERT_TRUE(arrays.bind(program.get()));
            arrays.unbind(program.get());
        }
        EXPECT_EQ(std::count_if(bindTexture.calls().begin(), bindTexture.calls().end(),
                                [](const auto& call) { return std::get<0>(call) == GL_TEXTURE_2D_ARRAY; }),
                  0);
        EXPECT_EQ(FakeBindless::calls.size(), 4u) << "a handle and its residency per array, once";
        GLuint words[2] = {};
        const QString name = QString("u_Array2DTextureHandles[%1]").arg(largeArray);
        glGetUniformuiv(program->shaderProgramID(), program->getUniformLocation(name), words);
        EXPECT_EQ(words[0] | uint64_t(words[1]) << 32, FakeBindless::handleOf(arrays.arrayTexture(largeArray)));

        // An array that grows is a new texture: the old handle goes, the next frame makes one.
        const uint64_t before = FakeBindless::handleOf(arrays.arrayTexture(smallArray));
        for (int i = 0; i < 4; ++i)
            tokens.insert(arrays.tokenForTexture((new Texture())->create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4)));
        ASSERT_TRUE(arrays.bind(tokens));
        EXPECT_EQ(FakeBindless::calls.back(), FakeBindless::Call("nonresident", before));
        ASSERT_TRUE(arrays.bind(program.get()));
        arrays.unbind(program.get());
        EXPECT_EQ(FakeBindless::calls.back(),
                  FakeBindless::Call("resident", FakeBindless::handleOf(arrays.arrayTexture(smallArray))));
        FakeBindless::calls.clear();
        arrays.clear();
        EXPECT_EQ(FakeBindless::calls.size(), 2u) << "both arrays' handles released";
    }
    program->unbind();
}
