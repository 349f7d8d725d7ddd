#include "gl/drawing/opengldevicecontext.h"
#include "gl/environment/okuimagecubemaputils.h"
#include "gl/environment/okurendercubemap.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textureio/textureio.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QVector2D>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using namespace Tavren::Vyx::OkuImageCubemapUtils;

namespace {

// GL's cube face table: major axis, and the directions of increasing s and t.
const QVector3D kFaces[6][3] = {
    {{1, 0, 0}, {0, 0, -1}, {0, -1, 0}}, {{-1, 0, 0}, {0, 0, 1}, {0, -1, 0}}, {{0, 1, 0}, {1, 0, 0}, {0, 0, 1}},
    {{0, -1, 0}, {1, 0, 0}, {0, 0, -1}}, {{0, 0, 1}, {1, 0, 0}, {0, -1, 0}},  {{0, 0, -1}, {-1, 0, 0}, {0, -1, 0}},
};

QVector3D faceDirection(int face, float s, float t)
{
    return kFaces[face][0] + kFaces[face][1] * (2 * s - 1) + kFaces[face][2] * (2 * t - 1);
}

// RGBA floats of `count` texels of one level.
std::vector<float> levelTexels(Texture* texture, int count, unsigned int face = 0, int level = 0)
{
    return VyxTest::texImage<float>(texture, GL_RGBA, GL_FLOAT, size_t(count) * 4, face, level);
}

std::vector<float> faceTexels(Texture* cube, int face, int level = 0)
{
    const int size = VyxTest::levelParameter(cube, GL_TEXTURE_WIDTH, GL_TEXTURE_CUBE_MAP_POSITIVE_X, level);
    return levelTexels(cube, size * size, GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, level);
}

using Radiance = std::function<QVector3D(const QVector3D&)>;

// An RGBA32F cube map holding the radiance at texel centres, mipmapped.
std::unique_ptr<Texture> makeCube(int size, const Radiance& radiance)
{
    auto cube = std::make_unique<Texture>();
    cube->setTarget(GL_TEXTURE_CUBE_MAP);
    cube->bind();
    for (int face = 0; face < 6; ++face) {
        std::vector<float> texels;
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x) {
                const QVector3D c = radiance(faceDirection(face, (x + 0.5f) / size, (y + 0.5f) / size).normalized());
                texels.insert(texels.end(), {c.x(), c.y(), c.z(), 1.0f});
            }
        glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA32F, size, size, 0, GL_RGBA, GL_FLOAT,
                     texels.data());
    }
    glGenerateMipmap(GL_TEXTURE_CUBE_MAP);
    cube->unbind();
    return cube;
}

std::unique_ptr<Texture> make2D(int width, int height, unsigned int internalFormat, const float* rgba = nullptr)
{
    return VyxTest::texture2D(width, height, internalFormat, GL_FLOAT, rgba);
}

std::unique_ptr<Texture> loadEsplanade()
{
    return std::unique_ptr<Texture>(LoadTextureFromFile(
        VyxTest::testDataPath("hdr/loadersgl_royal_esplanade_256_latlong.hdr"), TextureFileInfo()));
}

// Calls fn on the direction and RGBA of every texel of every face.
void forEachTexel(Texture* cube, int level, const std::function<void(const QVector3D&, const float*)>& fn)
{
    const int size = VyxTest::levelParameter(cube, GL_TEXTURE_WIDTH, GL_TEXTURE_CUBE_MAP_POSITIVE_X, level);
    for (int face = 0; face < 6; ++face) {
        const std::vector<float> texels = faceTexels(cube, face, level);
        for (int i = 0; i < size * size; ++i)
            fn(faceDirection(face, (i % size + 0.5f) / size, (i / size + 0.5f) / size).normalized(), &texels[i * 4]);
    }
}

// The split-sum scale and bias of the height-correlated Smith GGX at N.V and roughness, by the
// midpoint rule over w = sqrt(1 - u), u the GGX CDF of the half vector's polar angle, and over
// the arc of azimuths (mirrored about V's plane) where L is above the horizon. Without those two
// the rule crawls at grazing angles; with them, 1024 x 128 points are within 0.01%.
std::pair<double, double> splitSumIntegral(double nDotV, double roughness)
{
    const double alpha = roughness * roughness, a2 = alpha * alpha, sinV = std::sqrt(1 - nDotV * nDotV);
    const int wSteps = 1024, phiSteps = 128;
    double scale = 0, bias = 0;
    for (int i = 0; i < wSteps; ++i) {
        const double w = (i + 0.5) / wSteps, cosTheta = w / std::sqrt(w * w + a2 * (1 - w * w));
        const double reach = sinV * std::sqrt(1 - cosTheta * cosTheta), limit = nDotV * (0.5 / cosTheta - cosTheta);
        const double arc = reach > 0 ? std::acos(qBound(-1.0, limit / reach, 1.0)) : (limit < 0 ? M_PI : 0);
        for (int j = 0; j < phiSteps; ++j) {
            const double vDotH = reach * std::cos((j + 0.5) / phiSteps * arc) + nDotV * cosTheta;
            const double nDotL = 2 * vDotH * cosTheta - nDotV;
            if (vDotH <= 0 || nDotL <= 0)
                continue;
            const double visibility = 0.5 / (nDotL * std::sqrt(nDotV * nDotV * (1 - a2) + a2) +
                                             nDotV * std::sqrt(nDotL * nDotL * (1 - a2) + a2));
            // BRDF * N.L over the pdf D * N.H of the half vector, times du / dw = 2 w.
            const double value = 4 * visibility * nDotL * vDotH / cosTheta * 2 * w * arc;
            const double fresnel = std::pow(1 - vDotH, 5);
            scale += value * (1 - fresnel);
            bias += value * fresnel;
        }
    }
    const double cell = 1.0 / (double(wSteps) * phiSteps * M_PI);
    return {scale * cell, bias * cell};
}

// A CPU lookup of a cube map's texels (RGBA floats per face, as read back): bilinear, across
// face edges too.
struct CpuCube
{
    int size = 0;
    std::vector<float> faces[6];

    explicit CpuCube(Texture* cube, int level = 0)
        : size(VyxTest::levelParameter(cube, GL_TEXTURE_WIDTH, GL_TEXTURE_CUBE_MAP_POSITIVE_X, level))
    {
        for (int face = 0; face < 6; ++face)
            faces[face] = faceTexels(cube, face, level);
    }

    // The face and (s, t) texel coordinates of a direction.
    int locate(const QVector3D& d, float& x, float& y) const
    {
        int face = 0;
        for (int f = 1; f < 6; ++f)
            if (QVector3D::dotProduct(d, kFaces[f][0]) > QVector3D::dotProduct(d, kFaces[face][0]))
                face = f;
        const QVector3D onFace = d / QVector3D::dotProduct(d, kFaces[face][0]);
        x = (QVector3D::dotProduct(onFace, kFaces[face][1]) + 1) * 0.5f * size - 0.5f;
        y = (QVector3D::dotProduct(onFace, kFaces[face][2]) + 1) * 0.5f * size - 0.5f;
        return face;
    }

    // Taps past a face's edge read the neighbouring face, as seamless filtering does.
    QVector3D tap(int face, int tx, int ty) const
    {
        if (tx < 0 || ty < 0 || tx >= size || ty >= size) {
            float x, y;
            face = locate(faceDirection(face, (tx + 0.5f) / size, (ty + 0.5f) / size), x, y);
            tx = qBound(0, int(std::lround(x)), size - 1);
            ty = qBound(0, int(std::lround(y)), size - 1);
        }
        const float* t = &faces[face][size_t(ty * size + tx) * 4];
        return QVector3D(t[0], t[1], t[2]);
    }

    QVector3D operator()(const QVector3D& d) const
    {
        float x, y;
        const int face = locate(d, x, y);
        const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
        const float fx = x - x0, fy = y - y0;
        return (tap(face, x0, y0) * (1 - fx) + tap(face, x0 + 1, y0) * fx) * (1 - fy) +
               (tap(face, x0, y0 + 1) * (1 - fx) + tap(face, x0 + 1, y0 + 1) * fx) * fy;
    }
};

// GGX-prefiltered radiance around n (N = V = R): the N.L D-weighted mean of the source's bilinear
// radiance, by quadrature over every texel, each split into as many parts (at least 2 x 2, for
// the bilinear field) as the lobe's width there asks for. On the test picture, whose sun holds
// half its light in a few texels, even 4,096 point samples of the lobe are several percent off
// this at the rough levels.
class PrefilteredQuadrature
{
public:
    explicit PrefilteredQuadrature(const CpuCube& source)
        : _source(source)
    {
        for (int face = 0; face < 6; ++face)
            for (int y = 0; y < source.size; ++y)
                for (int x = 0; x < source.size; ++x)
                    for (int quarter = 0; quarter < 4; ++quarter)
                        _parts.push_back(part(face, x, y, 2, quarter % 2, quarter / 2));
    }

    QVector3D operator()(const QVector3D& n, double roughness) const
    {
        const double alpha = roughness * roughness;
        _sum = QVector3D();
        _weight = 0;
        const int size = _source.size;
        for (size_t texel = 0; texel < _parts.size() / 4; ++texel) {
            const Part* parts = &_parts[texel * 4];
            const QVector3D centre = (parts[0].direction + parts[3].direction).normalized();
            // The chord stands for the angle: it only picks how finely to split.
            const double texelAngle = 2.0 / size, angle = std::sqrt(std::max(0.0f, 2 - 2 * QVector3D::dotProduct(centre, n)));
            const int split = 2 * qBound(1, int(std::ceil(2 * texelAngle / std::max(2 * alpha, angle))), 16);
            if (split == 2) {
                for (int i = 0; i < 4; ++i)
                    add(parts[i], n, alpha);
                continue;
            }
            const int face = int(texel / size_t(size * size)), x = int(texel % size_t(size)), y = int(texel / size_t(size) % size_t(size));
            for (int j = 0; j < split; ++j)
                for (int i = 0; i < split; ++i)
                    add(part(face, x, y, split, i, j), n, alpha);
        }
        return _sum / float(_weight);
    }

private:
    struct Part
    {
        QVector3D direction, radiance;
        double solidAngle;
    };

    Part part(int face, int x, int y, int split, int i, int j) const
    {
        const int size = _source.size;
        const auto corner = [size, split](double cx, double cy) {
            const double u = 2.0 * cx / (size * split) - 1.0, v = 2.0 * cy / (size * split) - 1.0;
            return std::atan2(u * v, std::sqrt(u * u + v * v + 1.0));
        };
        const int sx = x * split + i, sy = y * split + j;
        const QVector3D l = faceDirection(face, (sx + 0.5f) / (size * split), (sy + 0.5f) / (size * split)).normalized();
        return {l, _source(l), corner(sx + 1, sy + 1) - corner(sx, sy + 1) - corner(sx + 1, sy) + corner(sx, sy)};
    }

    void add(const Part& p, const QVector3D& n, double alpha) const
    {
        const double nDotL = QVector3D::dotProduct(n, p.direction);
        if (nDotL <= 0)
            return;
        // With N = V, N.H^2 = (1 + N.L) / 2.
        const double a2 = alpha * alpha, d = (1 + nDotL) / 2 * (a2 - 1) + 1;
        const double w = a2 / (M_PI * d * d) * nDotL * p.solidAngle;
        _sum += p.radiance * float(w);
        _weight += w;
    }

    const CpuCube& _source;
    std::vector<Part> _parts; // 2 x 2 per texel, face by face, row by row
    mutable QVector3D _sum;
    mutable double _weight = 0;
};

using CubemapTest = VyxTest::GLTest;

} // namespace

TEST_F(CubemapTest, LatLongMatchesBilinearLookupOfTheSourceDirection)
{
    std::unique_ptr<Texture> source = loadEsplanade();
    ASSERT_TRUE(source);
    const int w = VyxTest::levelParameter(source.get(), GL_TEXTURE_WIDTH);
    const int h = VyxTest::levelParameter(source.get(), GL_TEXTURE_HEIGHT);
    const std::vector<float> src = levelTexels(source.get(), w * h);
    std::unique_ptr<Texture> cube(createGLCubemapFromTexture(source.get(), SourceLatLong, 32, ColorSpaceLinear));
    ASSERT_TRUE(cube);
    EXPECT_EQ(VyxTest::levelParameter(cube.get(), GL_TEXTURE_INTERNAL_FORMAT, GL_TEXTURE_CUBE_MAP_POSITIVE_X),
              GL_RGBA32F);
    int checked = 0;
    forEachTexel(cube.get(), 0, [&](const QVector3D& d, const float* texel) {
        const float theta0 = std::acos(QVector2D(d.x(), d.z()).normalized().x());
        const float u = (d.z() < 0 ? 2 * float(M_PI) - theta0 : theta0) / (2 * float(M_PI));
        const float x = u * w - 0.5f, y = std::acos(d.y()) / float(M_PI) * h - 0.5f;
        const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
        for (int c = 0; c < 3; ++c) {
            float expected = 0, largest = 0;
            for (int tap = 0; tap < 4; ++tap) {
                const int tx = ((x0 + (tap & 1)) % w + w) % w, ty = qBound(0, y0 + tap / 2, h - 1);
                const float value = src[size_t(ty * w + tx) * 4 + c];
                expected += value * ((tap & 1) ? x - x0 : 1 - (x - x0)) * ((tap / 2) ? y - y0 : 1 - (y - y0));
                largest = qMax(largest, value);
            }
            EXPECT_NEAR(texel[c], expected, 0.01f * largest + 1e-4f) << d.x() << " " << d.y() << " " << d.z();
        }
        ++checked;
    });
    EXPECT_EQ(checked, 6 * 32 * 32);
}

TEST_F(CubemapTest, CrossLayoutsRoundTrip)
{
    const int size = 8;
    std::unique_ptr<Texture> cube = makeCube(size, [](const QVector3D& d) { return d * 3.0f + QVector3D(5, 6, 7); });
    std::vector<float> faces[6];
    for (int face = 0; face < 6; ++face)
        faces[face] = faceTexels(cube.get(), face);
    // Cells (column, row from the top) as the picture is seen; the vertical -Z is upside down.
    const int horizontal[6][2] = {{2, 1}, {0, 1}, {1, 0}, {1, 2}, {1, 1}, {3, 1}};
    const int vertical[6][2] = {{2, 1}, {0, 1}, {1, 0}, {1, 2}, {1, 1}, {1, 3}};
    for (const bool isVertical : {false, true}) {
        const int columns = isVertical ? 3 : 4, rows = isVertical ? 4 : 3;
        std::vector<float> picture(size_t(columns * rows * size * size) * 4, -1.0f);
        for (int face = 0; face < 6; ++face) {
            const int* cell = isVertical ? vertical[face] : horizontal[face];
            const bool turned = isVertical && face == 5;
            for (int y = 0; y < size; ++y)
                for (int x = 0; x < size; ++x) {
                    const int px = cell[0] * size + (turned ? size - 1 - x : x);
                    const int pyFromTop = cell[1] * size + (turned ? size - 1 - y : y);
                    const size_t at = size_t((rows * size - 1 - pyFromTop) * columns * size + px) * 4;
                    std::copy_n(&faces[face][size_t(y * size + x) * 4], 4, &picture[at]);
                }
        }
        std::unique_ptr<Texture> cross = make2D(columns * size, rows * size, GL_RGBA32F, picture.data());
        std::unique_ptr<Texture> back(createGLCubemapFromTexture(cross.get(), SourceCross, 0, ColorSpaceLinear));
        ASSERT_TRUE(back);
        for (int face = 0; face < 6; ++face)
            EXPECT_EQ(faceTexels(back.get(), face), faces[face]) << "vertical " << isVertical << " face " << face;
    }
}

TEST_F(CubemapTest, CrossSizesRefusalsAndBadSources)
{
    struct Case { int width, height, faceSize; }; // face size 0: refused
    for (const Case& c : {Case{1024, 768, 256}, Case{2400, 1800, 512}, Case{64, 32, 16}, Case{48, 64, 16},
                          Case{64, 64, 0}}) {
        std::unique_ptr<Texture> source = make2D(c.width, c.height, GL_RGBA8);
        VyxTest::MessageCapture capture;
        std::unique_ptr<Texture> cube(createGLCubemapFromTexture(source.get(), SourceCross, 0, ColorSpaceSRGB));
        if (c.faceSize == 0) {
            EXPECT_FALSE(cube);
            EXPECT_EQ(capture.bodies(QtCriticalMsg),
                      QStringList{"[ !! ] Texture(64,64) not a 4:3 or 3:4 image. Cannot load cubemap."});
        } else {
            ASSERT_TRUE(cube) << c.width;
            EXPECT_EQ(VyxTest::levelParameter(cube.get(), GL_TEXTURE_WIDTH, GL_TEXTURE_CUBE_MAP_NEGATIVE_Z),
                      c.faceSize);
        }
    }
    // Null, 3D and storage-less sources fail every creator with a message and leave no GL error.
    Texture volume, empty;
    volume.create3D(GL_TEXTURE_3D, GL_RGBA8, 4, 4, 4);
    empty.setTarget(GL_TEXTURE_2D);
    std::unique_ptr<Texture> flat = make2D(8, 8, GL_RGBA8);
    for (Texture* bad : {static_cast<Texture*>(nullptr), &volume, &empty}) {
        VyxTest::MessageCapture capture;
        EXPECT_FALSE(createGLCubemapFromTexture(bad, SourceLatLong, 16, ColorSpaceLinear));
        EXPECT_FALSE(createGLCubemapBlurFromGLCubemap(bad, 8, 1, 0));
        EXPECT_FALSE(createGLCubemapNDotLFromGLCubemap(bad, 8, 1, 0, 1.0f));
        EXPECT_FALSE(createPrefilteredEnvMapFromGLCubemap(bad, 8, 2));
        EXPECT_FALSE(computeIrradianceSHFromGLCubemap(bad).valid);
        EXPECT_GE(capture.texts(QtCriticalMsg).size(), 5);
        EXPECT_TRUE(capture.bodies(QtCriticalMsg).contains("[ !! ] Unable to create cubemap blur from cubemap."));
        EXPECT_TRUE(capture.bodies(QtCriticalMsg).contains("[ !! ] Unable to create cubemap NDotL from cubemap."));
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    }
    VyxTest::MessageCapture capture;
    OkuRenderCubemap_Sphere renderer(flat.get());
    EXPECT_FALSE(renderer.render(flat.get(), 0));
    EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{"[ !! ] Unhandled Texture Type 0xDE1"});
    EXPECT_FALSE(createGLCubemapFromTexture(flat.get(), SourceLinear, 16, ColorSpaceLinear));
    EXPECT_FALSE(createGLCubemapFromTexture(flat.get(), SourceLatLong, 0, ColorSpaceLinear));
}

TEST_F(CubemapTest, NDotLOfOneBrightDirectionIsItsCosineLobe)
{
    const QVector3D bright = QVector3D(-1.0f, -2.0f, 0.5f).normalized();
    const auto radiance = [&](const QVector3D& d) {
        return QVector3D(1, 1, 1) * (0.05f + 4.0f * std::pow(qMax(0.0f, QVector3D::dotProduct(d, bright)), 16.0f));
    };
    const int sourceSize = 32;
    std::unique_ptr<Texture> cube = makeCube(sourceSize, radiance);
    std::unique_ptr<Texture> diffuse(createGLCubemapNDotLFromGLCubemap(cube.get(), 8, 1, 0, 1.0f));
    ASSERT_TRUE(diffuse);
    forEachTexel(diffuse.get(), 0, [&](const QVector3D& n, const float* texel) {
        // The convolution's own sum: the centre sample plus a grid over every face, weighted by N.L.
        double sum = radiance(n).x(), weight = 1;
        for (int y = 0; y <= sourceSize; ++y)
            for (int x = 0; x <= sourceSize; ++x) {
                const float a = -1.0f + 2.0f * x / sourceSize, b = -1.0f + 2.0f * y / sourceSize;
                for (const QVector3D& l : {QVector3D(a, b, 1), QVector3D(a, b, -1), QVector3D(b, 1, a),
                                           QVector3D(b, -1, a), QVector3D(1, a, b), QVector3D(-1, a, b)}) {
                    const float cosine = QVector3D::dotProduct(n, l.normalized());
                    if (cosine > 0) {
                        sum += cosine * radiance(l.normalized()).x();
                        weight += cosine;
                    }
                }
            }
        EXPECT_NEAR(texel[0], sum / weight, 0.02 * sum / weight) << n.x() << " " << n.y() << " " << n.z();
    });
}

TEST_F(CubemapTest, PrefilteredRoughnessZeroIsTheSource)
{
    std::unique_ptr<Texture> source = loadEsplanade();
    std::unique_ptr<Texture> cube(createGLCubemapFromTexture(source.get(), SourceLatLong, 16, ColorSpaceLinear));
    ASSERT_TRUE(cube);
    std::unique_ptr<Texture> prefiltered(createPrefilteredEnvMapFromGLCubemap(cube.get(), 16, 3));
    ASSERT_TRUE(prefiltered);
    for (int face = 0; face < 6; ++face) {
        const std::vector<float> level0 = faceTexels(prefiltered.get(), face), expected = faceTexels(cube.get(), face);
        for (size_t i = 0; i < level0.size(); ++i)
            ASSERT_NEAR(level0[i], expected[i], 1e-4f * expected[i]) << face << " " << i;
    }
    // Rougher levels spread the sun: their brightest texel is dimmer.
    float brightest[3] = {};
    for (int level = 0; level < 3; ++level)
        forEachTexel(prefiltered.get(), level, [&](const QVector3D&, const float* t) {
            brightest[level] = qMax(brightest[level], t[0]);
        });
    EXPECT_GT(brightest[0], brightest[1]);
    EXPECT_GT(brightest[1], brightest[2]);
}


// The default sample count, at about the lobe-to-texel ratios of SceneRenderer's 128^2 map from a
// 256^2 environment, against the exact lobe integral: the test picture's sun is its worst case.
TEST_F(CubemapTest, PrefilteredLevelsMatchAQuadratureOfARealEnvironment)
{
    std::unique_ptr<Texture> source = loadEsplanade();
    std::unique_ptr<Texture> cube(createGLCubemapFromTexture(source.get(), SourceLatLong, 64, ColorSpaceLinear));
    ASSERT_TRUE(cube);
    const CpuCube cpuSource(cube.get());
    const PrefilteredQuadrature quadrature(cpuSource);
    const int size = 16, levels = 5;
    std::unique_ptr<Texture> prefiltered(createPrefilteredEnvMapFromGLCubemap(cube.get(), size, levels));
    ASSERT_TRUE(prefiltered);
    for (int level = 1; level < levels; ++level) {
        const double roughness = prefilteredLevelRoughness(level, levels);
        double squaredError = 0, squaredSum = 0;
        forEachTexel(prefiltered.get(), level, [&](const QVector3D& n, const float* t) {
            const QVector3D expected = quadrature(n, roughness);
            squaredError += (QVector3D(t[0], t[1], t[2]) - expected).lengthSquared();
            squaredSum += expected.lengthSquared();
        });
        EXPECT_LT(std::sqrt(squaredError / squaredSum), 0.02) << "level " << level << ", roughness " << roughness;
    }
}

// The diffuse map and the SH irradiance of a sun-lit real environment against a brute-force
// cosine integral over every texel of it.
TEST_F(CubemapTest, DiffuseIrradianceMatchesBruteForceOfARealEnvironment)
{
    std::unique_ptr<Texture> source = loadEsplanade();
    std::unique_ptr<Texture> cube(createGLCubemapFromTexture(source.get(), SourceLatLong, 64, ColorSpaceLinear));
    ASSERT_TRUE(cube);
    const IrradianceSH sh = computeIrradianceSHFromGLCubemap(cube.get());
    ASSERT_TRUE(sh.valid);
    const int size = 8;
    std::unique_ptr<Texture> diffuse(createIrradianceCubemapFromGLCubemap(cube.get(), size));
    ASSERT_TRUE(diffuse);
    EXPECT_EQ(VyxTest::levelParameter(diffuse.get(), GL_TEXTURE_INTERNAL_FORMAT, GL_TEXTURE_CUBE_MAP_POSITIVE_X),
              GL_RGBA32F);
    std::vector<std::pair<QVector3D, QVector3D>> texels; // direction, radiance times solid angle
    float totalSolidAngle = 0;
    forEachTexel(cube.get(), 0, [&](const QVector3D& d, const float* t) {
        const float cosine = qMax(qMax(std::abs(d.x()), std::abs(d.y())), std::abs(d.z()));
        texels.push_back({d, QVector3D(t[0], t[1], t[2]) * cosine * cosine * cosine});
        totalSolidAngle += cosine * cosine * cosine;
    });
    double brightest = 0, squaredSum = 0, shSquaredError = 0, mapSquaredError = 0;
    std::vector<std::pair<QVector3D, QVector3D>> shResults; // exact, from SH
    forEachTexel(diffuse.get(), 0, [&](const QVector3D& n, const float* t) {
        QVector3D sum;
        for (const auto& texel : texels)
            sum += texel.second * qMax(0.0f, QVector3D::dotProduct(n, texel.first));
        const QVector3D exact = sum * (4.0f / totalSolidAngle);
        shResults.push_back({exact, sh.evaluate(n)});
        brightest = qMax(brightest, double(exact.y()));
        squaredSum += exact.lengthSquared();
        shSquaredError += (sh.evaluate(n) - exact).lengthSquared();
        mapSquaredError += (QVector3D(t[0], t[1], t[2]) - exact).lengthSquared();
    });
    // The map sums the texels themselves: within 2% over all, though the sun is one of them.
    EXPECT_LT(std::sqrt(mapSquaredError / squaredSum), 0.02);
    // Three bands cannot hold a sun's sharp cosine: a single direction may be off by up to 1/16
    // of the brightest, while the whole stays within 3%.
    for (const auto& result : shResults)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(result.second[c], result.first[c], brightest / 16);
    EXPECT_LT(std::sqrt(shSquaredError / squaredSum), 0.03);
}

TEST_F(CubemapTest, BRDFTableMatchesNumericalIntegration)
{
    const int size = 32;
    std::unique_ptr<Texture> table(createPreintegratedBRDFTable(size));
    ASSERT_TRUE(table);
    EXPECT_EQ(VyxTest::levelParameter(table.get(), GL_TEXTURE_INTERNAL_FORMAT), GL_RG16F);
    const std::vector<float> texels = levelTexels(table.get(), size * size);
    // Grazing and head-on views, mirror-smooth to fully rough, each term within 0.5% of the
    // albedo (scale + bias): the bias alone is near 0 head-on.
    for (const int column : {0, 1, 4, 9, 16, 24, 31}) {
        for (const int row : {0, 2, 6, 12, 20, 28, 31}) {
            const double nDotV = (column + 0.5) / size, roughness = (row + 0.5) / size;
            const auto [scale, bias] = splitSumIntegral(nDotV, roughness);
            const float* texel = &texels[size_t(row * size + column) * 4];
            EXPECT_NEAR(texel[0], scale, 0.005 * (scale + bias)) << nDotV << " " << roughness;
            EXPECT_NEAR(texel[1], bias, 0.005 * (scale + bias)) << nDotV << " " << roughness;
        }
    }
    // The sheen lobe's albedo against a midpoint rule over the hemisphere of light directions,
    // within 3% where the lobe is not a grazing spike.
    std::unique_ptr<Texture> sheen(createSheenAlbedoTable(size));
    ASSERT_TRUE(sheen);
    const std::vector<float> albedo = levelTexels(sheen.get(), size * size);
    const auto sheenAlbedo = [](double nDotV, double roughness) {
        const double alpha = std::max(roughness * roughness, 1e-3), sinV = std::sqrt(1 - nDotV * nDotV);
        const int steps = 256;
        double sum = 0;
        for (int i = 0; i < steps; ++i)
            for (int j = 0; j < steps; ++j) {
                const double cosL = (i + 0.5) / steps, phi = 2 * M_PI * (j + 0.5) / steps, sinL = std::sqrt(1 - cosL * cosL);
                const QVector3D h = (QVector3D(float(sinV), 0, float(nDotV)) +
                                     QVector3D(float(sinL * std::cos(phi)), float(sinL * std::sin(phi)), float(cosL)))
                                        .normalized();
                const double sin2 = std::max(1.0 - double(h.z()) * h.z(), 1e-4);
                const double d = (2 + 1 / alpha) * std::pow(sin2, 0.5 / alpha) / (2 * M_PI);
                sum += d / (4 * (cosL + nDotV - cosL * nDotV)) * cosL;
            }
        return sum * 2 * M_PI / (double(steps) * steps);
    };
    for (const auto& [column, row] : {std::pair{4, 16}, {16, 8}, {16, 24}, {31, 31}, {24, 4}}) {
        const double nDotV = (column + 0.5) / size, roughness = (row + 0.5) / size;
        const double expected = sheenAlbedo(nDotV, roughness);
        EXPECT_NEAR(albedo[size_t(row * size + column) * 4], expected, 0.03 * expected + 2e-3)
            << nDotV << " " << roughness;
    }
}

TEST_F(CubemapTest, SphereMapsDirectionXYAndColourSpacesConvert)
{
    // Red and green rise linearly across the picture, so a bilinear read gives back its uv.
    const int size = 64;
    std::vector<float> ramp;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            ramp.insert(ramp.end(), {(x + 0.5f) / size, (y + 0.5f) / size, 0.0f, 1.0f});
    std::unique_ptr<Texture> sphere = make2D(size, size, GL_RGBA32F, ramp.data());
    std::unique_ptr<Texture> cube(createGLCubemapFromTexture(sphere.get(), SourceSphere, 16, ColorSpaceLinear));
    ASSERT_TRUE(cube);
    forEachTexel(cube.get(), 0, [&](const QVector3D& d, const float* t) {
        for (int c = 0; c < 2; ++c)
            EXPECT_NEAR(t[c], qBound(0.5f / size, 0.5f * d[c] + 0.5f, 1 - 0.5f / size), 1e-3f);
    });

    const float grey[4] = {128 / 255.0f, 128 / 255.0f, 128 / 255.0f, 1.0f};
    std::unique_ptr<Texture> flat = make2D(1, 1, GL_RGBA8, grey);
    const std::pair<OkuImageCubemapColorSpace, float> spaces[] = {
        {ColorSpaceLinear, grey[0]},
        {ColorSpaceSRGB, std::pow((grey[0] + 0.055f) / 1.055f, 2.4f)},
        {ColorSpaceGamma22, std::pow(grey[0], 2.2f)}};
    for (const auto& space : spaces) {
        std::unique_ptr<Texture> converted(createGLCubemapFromTexture(flat.get(), SourceSphere, 2, space.first));
        ASSERT_TRUE(converted);
        EXPECT_EQ(VyxTest::levelParameter(converted.get(), GL_TEXTURE_INTERNAL_FORMAT, GL_TEXTURE_CUBE_MAP_POSITIVE_X),
                  GL_RGBA16F);
        EXPECT_NEAR(faceTexels(converted.get(), 3)[0], space.second, 1e-3f) << space.first;
    }
}

// A host that only made a context current and initialised the library: the cube passes make the
// device context they draw with, as the texture passes do. Every pass keeps a constant environment.
TEST(CubemapAfterInitialisationAlone, EveryPassKeepsAConstantEnvironmentWithoutADeviceContext)
{
    HeadlessGLContext context;
    ASSERT_TRUE(context.create() && context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
    ASSERT_TRUE(OpenGLDeviceContext::current().isNull());
    const std::vector<float> grey = [] {
        std::vector<float> texels;
        for (int i = 0; i < 8 * 6; ++i)
            texels.insert(texels.end(), {0.7f, 0.7f, 0.7f, 1.0f});
        return texels;
    }();
    std::unique_ptr<Texture> flat = make2D(8, 6, GL_RGBA32F, grey.data());
    std::unique_ptr<Texture> cube = makeCube(16, [](const QVector3D&) { return QVector3D(0.7f, 0.7f, 0.7f); });
    const bool cubeArrays = openGlVersionSupported(4, 0) || hasGLExtension("GL_ARB_texture_cube_map_array");
    struct Pass { const char* name; int levels; bool array; std::function<Texture*()> run; };
    const Pass passes[] = {
        {"lat-long", 1, false, [&] { return createGLCubemapFromTexture(flat.get(), SourceLatLong, 4, ColorSpaceLinear); }},
        {"cross", 1, false, [&] { return createGLCubemapFromTexture(flat.get(), SourceCross, 4, ColorSpaceLinear); }},
        {"sphere", 1, false, [&] { return createGLCubemapFromTexture(flat.get(), SourceSphere, 4, ColorSpaceLinear); }},
        {"blur", 1, false, [&] { return createGLCubemapBlurFromGLCubemap(cube.get(), 8, 1, 0); }},
        {"N.L", 1, false, [&] { return createGLCubemapNDotLFromGLCubemap(cube.get(), 8, 1, 0, 1.0f); }},
        {"prefiltered", 5, false, [&] { return createPrefilteredEnvMapFromGLCubemap(cube.get(), 16, 5, 32); }},
        // A size no source level has: roughness 0 is resampled rather than copied.
        {"prefiltered resampled", 3, false, [&] { return createPrefilteredEnvMapFromGLCubemap(cube.get(), 12, 3, 32); }},
        // Three amounts of the ramp 0, 0.5, 1 from the second on: a two-layer cube map array.
        {"N.L array", 1, true, [&] { return createGLCubemapNDotLFromGLCubemap(cube.get(), 4, 3, 1, 2.0f); }},
    };
    for (const Pass& pass : passes) {
        SCOPED_TRACE(pass.name);
        std::unique_ptr<Texture> result(pass.run());
        if (pass.array && !cubeArrays) {
            EXPECT_FALSE(result);
            continue;
        }
        ASSERT_TRUE(result);
        EXPECT_EQ(result->target() == GL_TEXTURE_CUBE_MAP_ARRAY, pass.array);
        for (int level = 0; level < pass.levels; ++level) {
            std::vector<float> texels;
            if (pass.array)
                texels = levelTexels(result.get(), 4 * 4 * 12, 0, level);
            else
                forEachTexel(result.get(), level, [&](const QVector3D&, const float* t) { texels.insert(texels.end(), t, t + 4); });
            for (size_t i = 0; i < texels.size(); ++i)
                ASSERT_NEAR(texels[i], i % 4 == 3 ? 1.0f : 0.7f, 1e-3f) << "level " << level;
        }
    }
    std::unique_ptr<Texture> table(createPreintegratedBRDFTable(8, 16));
    EXPECT_TRUE(table);
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}
