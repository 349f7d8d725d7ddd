#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/array2dtexturemanager.h"
#include "gl/textures/samplertexturemanager.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QImage>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <string>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kRows = 5;
constexpr int kMaxColumns = 48;

const char* const kVertex = R"(#version 150
void main() { gl_Position = vec4(gl_VertexID == 1 ? 3.0 : -1.0, gl_VertexID == 2 ? 3.0 : -1.0, 0.0, 1.0); }
)";

// Column i (two pixels wide, so derivatives stay within one token) shows token i: row 0 through
// managedTexture at texel (0, 0), row 1 texel (0, 0) fetched, rows 2 and 3 the top mip level
// fetched and sampled, row 4 texel (0, 0) again through managedTexturesAt and managedTextureAt.
const char* const kFragment = R"(#version 150
#include "TextureManager.glslh"
uniform uvec2 u_Tokens[48];
uniform int u_TopLevels[48];
uniform int u_First;
uniform int u_Count;
out vec4 o_Color;
void main()
{
    int i = int(gl_FragCoord.x) / 2;
    if (i < u_First || i >= u_First + u_Count)
        discard;
    VyxTextureToken token = u_Tokens[i];
    vec2 texCoord = vec2(0.5) / managedTextureSize(token);
    int row = int(gl_FragCoord.y);
    if (row == 0)
        o_Color = managedTexture(token, texCoord);
    else if (row == 1)
        o_Color = managedTexelFetch(token, ivec2(0), 0);
    else if (row == 2)
        o_Color = managedTexelFetch(token, ivec2(0), u_TopLevels[i]);
    else if (row == 3)
        o_Color = managedTextureLod(token, texCoord, float(u_TopLevels[i]));
    else {
        managedTexturesAt(texCoord);
        o_Color = managedTextureAt(token);
    }
#ifdef TEXTURE_MANAGER_ARRAY2D_SUPPORTS_TEXTURE_QUERY_LOD
    if (managedTextureQueryLod(token, texCoord).x < 0.0)
        o_Color = vec4(1.0, 0.0, 1.0, 1.0);
#endif
}
)";

enum class Kind { Sampler, Array };

struct Column { TextureToken token; int topLevel = 0; std::array<std::array<int, 4>, kRows> expected{}; };

// Texel (0, 0) of level 0 and of the top level, as an 8-bit target stores them.
Column columnFor(TextureToken token, Texture* texture)
{
    using VyxTest::levelParameter;
    Column column{token};
    GLint maxLevel = 0;
    texture->bind();
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, &maxLevel);
    texture->unbind();
    while (column.topLevel < maxLevel && levelParameter(texture, GL_TEXTURE_WIDTH, 0, column.topLevel + 1) > 0)
        ++column.topLevel;
    for (int row = 0; row < kRows; ++row) {
        const int level = row < 2 || row == 4 ? 0 : column.topLevel;
        const int texels = levelParameter(texture, GL_TEXTURE_WIDTH, 0, level) * levelParameter(texture, GL_TEXTURE_HEIGHT, 0, level);
        const std::vector<float> rgba = VyxTest::texImage<float>(texture, GL_RGBA, GL_FLOAT, size_t(texels) * 4, 0, level);
        for (int c = 0; c < 4; ++c)
            column.expected[size_t(row)][size_t(c)] = int(std::lround(std::clamp(rgba[size_t(c)], 0.0f, 1.0f) * 255.0f));
    }
    return column;
}

Column invalidColumn(TextureToken token)
{
    Column column{token};
    for (auto& row : column.expected)
        row = {0, 255, 0, 255};
    return column;
}

// A 2D texture of the size and format, texels from a seed; mipmapped or not, always complete.
Texture* patternTexture(int width, int height, GLenum internalFormat, bool mipmapped, int seed)
{
    std::vector<unsigned char> bytes(size_t(width * height * 4));
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>((i * 37 + size_t(seed) * 91 + 13) % 251);
    auto* texture = new Texture();
    texture->setTarget(GL_TEXTURE_2D);
    texture->bind();
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, bytes.data());
    if (mipmapped)
        glGenerateMipmap(GL_TEXTURE_2D);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, mipmapped ? GL_LINEAR_MIPMAP_NEAREST : GL_LINEAR);
    texture->unbind();
    return texture;
}

class ManagedTextureDrawTest : public VyxTest::GLTest, public ::testing::WithParamInterface<Kind>
{
protected:
    void SetUp() override
    {
        // The reduced run copies layers through the CPU: copying images is a 4.3 feature.
        if (isReducedProfileRun())
            setenv("VYX_HIDE_GL_EXTENSIONS", (std::string(getenv("VYX_HIDE_GL_EXTENSIONS")) + " GL_ARB_copy_image").c_str(), 1);
        VyxTest::GLTest::SetUp();
        if (GetParam() == Kind::Sampler) {
            auto* sampler = new SamplerTextureManager();
            sampler->setMaxSlots(16);
            manager.reset(sampler);
        } else {
            auto* arrays = new Array2DTextureManager();
            arrays->setMaxArrays(16);
            manager.reset(arrays);
        }
    }

    void TearDown() override
    {
        for (Texture* texture : made)
            manager->deleteTexture(texture);
        manager.reset();
        VyxTest::GLTest::TearDown();
    }

    // Built for draws of at most tokensPerDraw tokens, or for the manager's most without one.
    std::unique_ptr<ShaderProgram> program(int tokensPerDraw = 0)
    {
        GLSLMacroProcessor mp;
        mp.addDefine("DEBUG", "1");
        if (tokensPerDraw > 0)
            manager->setupForDraws(&mp, tokensPerDraw);
        else
            manager->setup(&mp);
        auto linked = std::make_unique<ShaderProgram>();
        linked->setMacroProcessor(&mp);
        linked->addShader(GL_VERTEX_SHADER, kVertex);
        linked->addShader(GL_FRAGMENT_SHADER, kFragment);
        linked->addShaderFromFile(GL_FRAGMENT_SHADER, manager->getShaderFile());
        EXPECT_TRUE(linked->link()) << linked->log().toStdString();
        return linked;
    }

    // Draws every column, a batch of tokens per draw, in the order a host would call things.
    void draw(ShaderProgram& linked, const std::vector<Column>& columns, int batch)
    {
        std::vector<GLuint> tokens;
        std::vector<GLint> topLevels;
        for (const Column& column : columns) {
            tokens.push_back(GLuint(column.token.token));
            tokens.push_back(GLuint(column.token.token >> 32));
            topLevels.push_back(column.topLevel);
        }
        GLuint vao = 0;
        glGenVertexArrays(1, &vao);
        glBindVertexArray(vao);
        ASSERT_TRUE(linked.bind());
        glUniform2uiv(linked.getUniformLocation("u_Tokens[0]"), GLsizei(columns.size()), tokens.data());
        glUniform1iv(linked.getUniformLocation("u_TopLevels[0]"), GLsizei(columns.size()), topLevels.data());
        for (int first = 0; first < int(columns.size()); first += batch) {
            const int count = std::min(batch, int(columns.size()) - first);
            QSet<TextureToken> set;
            for (int i = first; i < first + count; ++i)
                set.insert(columns[size_t(i)].token);
            ASSERT_TRUE(manager->bind(set));
            ASSERT_TRUE(manager->bind(&linked));
            glUniform1i(linked.getUniformLocation("u_First"), first);
            glUniform1i(linked.getUniformLocation("u_Count"), count);
            glDrawArrays(GL_TRIANGLES, 0, 3);
            manager->unbind(&linked);
            manager->unbind(set);
        }
        linked.unbind();
        glBindVertexArray(0);
        glDeleteVertexArrays(1, &vao);
    }

    std::unique_ptr<TextureManager> manager;
    std::vector<Texture*> made;
};

} // namespace

TEST_P(ManagedTextureDrawTest, AShaderReachesTokensOfEveryKindSizeAndFormat)
{
    std::vector<Column> columns;
    auto add = [&](TextureToken token) {
        Texture* texture = manager->textureForToken(token);
        ASSERT_NE(texture, nullptr);
        columns.push_back(columnFor(token, texture));
    };
    // Made here: sizes, formats and mip chains mixed; six of one kind outgrow a first array.
    struct Kind2D { int width, height; GLenum format; bool mipmapped; int copies; };
    const Kind2D kinds[] = {{4, 4, GL_RGBA8, true, 6}, {8, 2, GL_RGBA16F, false, 2}, {3, 5, GL_R8, false, 2},
                            {16, 16, GL_RG32F, true, 2}, {1, 1, GL_RGBA32F, false, 1}, {5, 3, GL_RGB8, true, 2}};
    int seed = 0;
    for (const Kind2D& kind : kinds)
        for (int copy = 0; copy < kind.copies; ++copy) {
            made.push_back(patternTexture(kind.width, kind.height, kind.format, kind.mipmapped, ++seed));
            add(manager->tokenForTexture(made.back()));
        }
    for (const QColor& colour : {QColor(Qt::white), QColor(Qt::red), QColor(10, 200, 30, 128), QColor(Qt::darkBlue),
                                 QColor(250, 128, 3), QColor(0, 0, 0, 0), QColor(Qt::gray)})
        add(manager->tokenForColor(colour));
    for (const char* file : {"ktx/astcenc_ldr-tile_rgba8.ktx", "ktx/ktxsw_rgb-mipmap-reference.ktx",
                             "ktx/sevmeyer_size_2d_43x71.ktx", "ktx/sevmeyer_format_raw_r8g8_unorm.ktx",
                             "ktx/sevmeyer_format_bc1_rgba_unorm.ktx", "hdr/imagers_rgbr4x4_flat.hdr"})
        add(manager->tokenForImage(VyxTest::testDataPath(file), {}));

    // A picture written here goes through Qt's reader (mipmapped); a corrupt one stands in white.
    QTemporaryDir dir;
    QImage picture(6, 6, QImage::Format_ARGB32);
    picture.fill(QColor(40, 90, 160));
    ASSERT_TRUE(picture.save(dir.filePath("picture.png")));
    add(manager->tokenForImage(dir.filePath("picture.png"), {}));
    const TextureToken brokenToken =
        manager->tokenForImage(VyxTest::writeFile(dir.filePath("broken.png"), "\x89PNG but not really"), {});
    columns.push_back(columnFor(brokenToken, manager->textureForColor(Qt::white)));
    columns.push_back(invalidColumn(TextureToken()));
    columns.push_back(invalidColumn(TextureToken(5000)));
    ASSERT_LE(columns.size(), size_t(kMaxColumns));

    const int width = int(columns.size()) * 2;
    VyxTest::ColourTarget target(width, kRows, 0.5f);
    // The sampler manager reaches a handful per draw, with a program declaring only as many
    // slots; the array manager all of them at once.
    const int batch = GetParam() == Kind::Sampler ? 8 : int(columns.size());
    std::unique_ptr<ShaderProgram> linked = program(batch);
    VyxTest::MessageCapture capture;
    draw(*linked, columns, batch);
    EXPECT_TRUE(capture.bodies(QtWarningMsg).contains("Failed to load " + dir.filePath("broken.png")));
    EXPECT_FALSE(capture.texts(QtWarningMsg).join('\n').contains("glError")) << capture.texts().join('\n').toStdString();

    std::array<std::vector<int>, 4> channels;
    for (int c = 0; c < 4; ++c)
        channels[size_t(c)] = target.channel(c);
    for (size_t i = 0; i < columns.size(); ++i)
        for (int row = 0; row < kRows; ++row)
            for (int x = 0; x < 2; ++x) {
                const size_t pixel = size_t(row * width) + i * 2 + size_t(x);
                const std::array<int, 4> got{channels[0][pixel], channels[1][pixel], channels[2][pixel],
                                             channels[3][pixel]};
                for (int c = 0; c < 4; ++c)
                    EXPECT_NEAR(got[size_t(c)], columns[i].expected[size_t(row)][size_t(c)], 2)
                        << "token " << columns[i].token.token << " (column " << i << ") row " << row << " channel " << c;
            }

    if (auto* arrays = dynamic_cast<Array2DTextureManager*>(manager.get()))
        EXPECT_LE(arrays->arrayCount(), 16) << "a handful of arrays for " << columns.size() << " tokens";

    // A program declaring fewer slots than a draw binds says so.
    if (GetParam() == Kind::Sampler) {
        std::unique_ptr<ShaderProgram> shortProgram = program(batch - 1);
        VyxTest::MessageCapture shortCapture;
        draw(*shortProgram, columns, batch);
        EXPECT_TRUE(shortCapture.bodies(QtWarningMsg).join('\n').contains("Texture slot 7 is in use but the program declares fewer slots"))
            << shortCapture.texts().join('\n').toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Managers, ManagedTextureDrawTest, ::testing::Values(Kind::Sampler, Kind::Array),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                             return info.param == Kind::Sampler ? std::string("Sampler") : std::string("Array");
                         });
