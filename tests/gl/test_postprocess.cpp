#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "render/postprocess.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kSize = 64;

// A point-sampled (aliased) scene, y up: a band under a near-horizontal edge (slope 0.1), a
// light wedge under a steep diagonal (slope 0.7), and a thin "T" of one-pixel strokes.
std::vector<GLubyte> aliasedScene()
{
    std::vector<GLubyte> rgba(kSize * kSize * 4);
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const float cx = x + 0.5f, cy = y + 0.5f;
            float c[3] = {0.1f, 0.15f, 0.3f};
            auto set = [&c](float r, float g, float b) { c[0] = r, c[1] = g, c[2] = b; };
            if (cy < 5.0f + 0.1f * cx)
                set(0.9f, 0.8f, 0.2f);
            if (cy >= 24.0f && cy <= 60.0f && cy - 24.0f < 0.7f * (cx - 4.0f))
                set(0.95f, 0.95f, 0.9f);
            if ((y == 18 && x >= 38 && x < 56) || (x == 46 && y >= 10 && y < 18))
                set(1.0f, 1.0f, 1.0f);
            for (int i = 0; i < 3; ++i)
                rgba[(y * kSize + x) * 4 + i] = GLubyte(std::lround(c[i] * 255.0f));
            rgba[(y * kSize + x) * 4 + 3] = 255;
        }
    }
    return rgba;
}

float luma(const std::vector<GLubyte>& rgba, int x, int y)
{
    const GLubyte* p = &rgba[(y * kSize + x) * 4];
    return (0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2]) / 255.0f;
}

// Total variation of the per-column step of an edge's position: the column sums of luma over
// rows [y0, y1] climb in stairs when aliased and evenly when smoothed.
float staircase(const std::vector<GLubyte>& rgba, int x0, int x1, int y0, int y1)
{
    std::vector<float> sums;
    for (int x = x0; x <= x1; ++x) {
        float sum = 0.0f;
        for (int y = y0; y <= y1; ++y)
            sum += luma(rgba, x, y);
        sums.push_back(sum);
    }
    float variation = 0.0f;
    for (size_t i = 1; i + 1 < sums.size(); ++i)
        variation += std::fabs(sums[i + 1] - 2.0f * sums[i] + sums[i - 1]);
    return variation;
}

class PostProcessTest : public VyxTest::GLTest
{
protected:
    static std::unique_ptr<Texture> texture(const std::vector<GLubyte>* texels)
    {
        return VyxTest::texture2D(kSize, kSize, GL_RGBA8, GL_UNSIGNED_BYTE, texels ? texels->data() : nullptr);
    }
};

} // namespace

TEST_F(PostProcessTest, SmoothsEdgesKeepsInteriorsAndThinLines)
{
    const std::vector<GLubyte> scene = aliasedScene();
    const float diagonalBefore = staircase(scene, 8, 50, 25, 59);
    const float flatBefore = staircase(scene, 2, 61, 1, 12);
    auto source = texture(&scene);
    auto destination = texture(nullptr);
    PostProcess post;

    struct Case { PostProcess::Mode mode; bool colourEdges; const char* name; };
    for (const Case& c : {Case{PostProcess::eFXAA, false, "fxaa"}, Case{PostProcess::eSMAA, false, "smaa"},
                          Case{PostProcess::eSMAA, true, "smaa colour edges"}, Case{PostProcess::eNone, false, "none"}}) {
        SCOPED_TRACE(c.name);
        post.setSmaaColorEdges(c.colourEdges);
        ASSERT_TRUE(post.apply(c.mode, source.get(), destination.get()));
        const auto out = VyxTest::texImage<GLubyte>(destination.get(), GL_RGBA, GL_UNSIGNED_BYTE, scene.size());

        // Texels whose 5x5 neighbourhood is flat stay as they were.
        int interior = 0, changed = 0;
        for (int y = 2; y < kSize - 2; ++y) {
            for (int x = 2; x < kSize - 2; ++x) {
                bool flat = true;
                for (int dy = -2; dy <= 2 && flat; ++dy)
                    for (int dx = -2; dx <= 2 && flat; ++dx)
                        flat = 0 == memcmp(&scene[((y + dy) * kSize + x + dx) * 4], &scene[(y * kSize + x) * 4], 4);
                if (!flat)
                    continue;
                ++interior;
                for (int i = 0; i < 4; ++i)
                    changed += std::abs(int(out[(y * kSize + x) * 4 + i]) - int(scene[(y * kSize + x) * 4 + i])) > 1;
            }
        }
        EXPECT_GT(interior, 2000);
        EXPECT_EQ(changed, 0);

        const float diagonalAfter = staircase(out, 8, 50, 25, 59);
        const float flatAfter = staircase(out, 2, 61, 1, 12);
        if (c.mode == PostProcess::eNone) {
            EXPECT_EQ(out, scene);
            continue;
        }
        EXPECT_LT(diagonalAfter, 0.6f * diagonalBefore) << diagonalBefore << " -> " << diagonalAfter;
        EXPECT_LT(flatAfter, 0.6f * flatBefore) << flatBefore << " -> " << flatAfter;

        // The strokes of the "T" stay brighter than the texels either side of them and keep
        // over a third of their contrast (morphological blending rounds their ends).
        const float background = luma(scene, 30, 16);
        for (int x = 40; x < 54; ++x) {
            const float stroke = luma(out, x, 18);
            EXPECT_GT(stroke - background, 0.33f * (1.0f - background)) << "x " << x;
            if (x != 46) // where the strokes join
                EXPECT_GT(stroke, std::max(luma(out, x, 17), luma(out, x, 19))) << "x " << x;
        }
        for (int y = 11; y < 17; ++y) {
            const float stroke = luma(out, 46, y);
            EXPECT_GT(stroke - background, 0.33f * (1.0f - background)) << "y " << y;
            EXPECT_GT(stroke, std::max(luma(out, 45, y), luma(out, 47, y))) << "y " << y;
        }
    }
}

TEST_F(PostProcessTest, RefusesBadArgumentsAndNamesModes)
{
    bool ok = true;
    EXPECT_EQ(PostProcess::modeFromString(QStringLiteral("FXAA"), &ok), PostProcess::eFXAA);
    EXPECT_TRUE(ok);
    EXPECT_EQ(PostProcess::modeFromString(QStringLiteral("smaa"), &ok), PostProcess::eSMAA);
    EXPECT_EQ(PostProcess::modeFromString(QStringLiteral("none"), &ok), PostProcess::eNone);
    EXPECT_TRUE(ok);
    EXPECT_EQ(PostProcess::modeFromString(QStringLiteral("msaa"), &ok), PostProcess::eNone);
    EXPECT_FALSE(ok);

    auto source = texture(nullptr);
    Texture small;
    small.create2D(GL_TEXTURE_2D, GL_RGBA8, 8, 8);
    PostProcess post;
    VyxTest::MessageCapture capture;
    EXPECT_FALSE(post.apply(PostProcess::eFXAA, source.get(), &small));
    EXPECT_FALSE(post.apply(PostProcess::eSMAA, source.get(), source.get()));
    EXPECT_FALSE(post.apply(PostProcess::eSMAA, nullptr, &small));
    EXPECT_TRUE(capture.texts().join(QLatin1Char('\n')).contains(
        QStringLiteral("Anti-aliasing source (64x64) and destination (8x8) must have one non-empty size")));
}

TEST_F(PostProcessTest, EveryFxaaQualityPresetCompiles)
{
    for (const char* preset : {"10", "12", "15", "20", "21", "29", "39"}) {
        GLSLMacroProcessor macros;
        macros.addDefine(QStringLiteral("FXAA_QUALITY__PRESET"), QString::fromLatin1(preset));
        ShaderProgram program;
        program.setMacroProcessor(&macros);
        program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("FXAA.glslc"));
        EXPECT_TRUE(program.compile()) << preset << program.log().toStdString();
    }
}
