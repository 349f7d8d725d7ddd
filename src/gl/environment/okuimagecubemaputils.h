#pragma once

#include "core/vyxexport.h"

#include <QList>
#include <QString>
#include <QVector3D>

namespace Tavren::Vyx {

class Texture;

// Turns 2D environment images on the GPU into cube maps and derives blurred, diffuse (N.L) and
// prefiltered specular cube maps from them. Everything renders with the current context and
// needs an installed OpenGLDeviceContext; results belong to the caller, null on failure.
//
// Cube maps follow GL's face conventions: face order +X, -X, +Y, -Y, +Z, -Z, and a face texel
// (s, t) looks along (major axis, sc = 2s - 1, tc = 2t - 1) with
//   +X: (1, -tc, -sc)  -X: (-1, -tc, sc)  +Y: (sc, 1, tc)  -Y: (sc, -1, -tc)
//   +Z: (sc, -tc, 1)   -Z: (-sc, -tc, -1)
// Each face is rendered from the centre with a 90 degree view along its axis, up (0, -1, 0) for
// the side faces, (0, 0, 1) for +Y and (0, 0, -1) for -Y, which lands texels exactly there.
//
// Source images use the library's row order: the picture's bottom row is GL's first row.
//   LatLong: u = longitude / 2pi, v = polar angle from +Y / pi. The first row is the zenith, so a
//            picture loaded bottom row first comes out upside down unless flipped (FlipY) first.
//            Longitude wraps (GL_REPEAT) while converting; the source's own settings are restored.
//   Sphere:  (u, v) = 0.5 * direction.xy + 0.5 (both z hemispheres read the same disc).
//   Cross:   as the picture is seen (+Y at the top), each cell holds its face unrotated in GL
//            texel order, except -Z in the vertical cross, turned 180 degrees:
//              horizontal (4:3)       vertical (3:4)
//                  +Y                      +Y
//              -X  +Z  +X  -Z          -X  +Z  +X
//                  -Y                      -Y
//                                          -Z
//            The vertical layout is used when the width is the smaller side.
namespace OkuImageCubemapUtils {

enum OkuImageCubemapSourceType {
    SourceNone = 0,
    SourceCubemap = 1,
    SourceSphere = 2,
    SourceLatLong = 3,
    SourceLinear = 4, // named only: no renderer converts it
    SourceCross = 5,
};

// The colour space the source's values are in; the conversion turns them into linear values.
enum OkuImageCubemapColorSpace {
    ColorSpaceLinear = 0,
    ColorSpaceSRGB = 1,
    ColorSpaceGamma22 = 2,
};

VYXGL_EXPORT QString typeAsString(int type);
// The first of "None" ... "Cross" equal to the name, else SourceNone.
VYXGL_EXPORT OkuImageCubemapSourceType typeFromString(const QString& name);
// Sphere, LatLong and Cross.
VYXGL_EXPORT QList<OkuImageCubemapSourceType> supportedTypes();
VYXGL_EXPORT bool canFileSupport3DCubemap(const QString& fileName);

// A size x size cube map (mipmapped, GL_RGBA32F from 32-bit float sources, else GL_RGBA16F)
// from a 2D source. Cross sources set their own face size: max(w, h) / 4, at most 512.
VYXGL_EXPORT Texture* createGLCubemapFromTexture(Texture* source, OkuImageCubemapSourceType type, unsigned int size,
                                                 OkuImageCubemapColorSpace colorSpace);

// The two ints are a ramp of levelCount blur amounts from sharp (0) to the widest (1), of which
// the levels firstLevel ... levelCount - 1 are made: layer j of the result holds amount
// (firstLevel + j) / (levelCount - 1), or 0 when levelCount is 1. One layer gives a
// GL_TEXTURE_CUBE_MAP, more a GL_TEXTURE_CUBE_MAP_ARRAY (needing GL 4.0 or the extension).
// Up to kBatchSize layers are rendered per pass, one output each: the blur shader is built
// with OKU_CUBERENDER_BLUR_BATCH_SIZE, the N.L shader with OKU_CUBERENDER_NDOT_BATCH_SIZE, both
// min(layers, kBatchSize). Both sample the source's level 0 on a grid of up to 129^2 points
// per face, not weighted by solid angle: texels near cube corners count up to 5x more.
constexpr int kBatchSize = 4;
// Box blur over the cone of half-angle acos(mix(1, 0.707, amount)).
VYXGL_EXPORT Texture* createGLCubemapBlurFromGLCubemap(Texture* cubemap, unsigned int size, int levelCount,
                                                       int firstLevel);
// Cosine-power convolution, power exp2(13 * pow(amount, 1 / levelPow)); amount 0 is N.L, the
// diffuse (irradiance / pi) map. Cost grows with the source's face size (sampled up to 128^2
// per face): for the diffuse map alone, createIrradianceCubemapFromGLCubemap below is faster
// and exact, and the SH irradiance cheaper still.
VYXGL_EXPORT Texture* createGLCubemapNDotLFromGLCubemap(Texture* cubemap, unsigned int size, int levelCount,
                                                        int firstLevel, float levelPow);

// Prefiltered specular map for the split-sum approximation: a size x size cube map with
// `levels` mip levels (at most 16), level k prefiltered with GGX at roughness
// prefilteredLevelRoughness(k, levels) and N = V = R, level 0 being the source at that size (a
// copy of the matching source level when there is one). The source must be mipmapped, as the
// cube maps made here are. Its first level of at most 64^2 a face is read back and split: the
// texels holding more than 0.1% of all its light (a sun's, which GGX's long tail spreads over
// every direction; 24 at most) are cut down to that share and their excess becomes small area
// lights, added exactly. What is left is smooth: rough levels (0.5 and up) sum it over 8 x 8
// blocks a face, the others filtered-importance-sample it, each of the `samples` points reading
// the mip level whose texels cover the solid angle it stands for. On a sun-lit HDR picture each
// level is within 1.7% RMS of an exact quadrature (where even 4,096 point samples are several
// percent off at the rough levels), in about the time 64 point samples of the whole source took.
VYXGL_EXPORT Texture* createPrefilteredEnvMapFromGLCubemap(Texture* cubemap, unsigned int size, int levels,
                                                           int samples = 64);
// The roughness-to-level mapping of the prefiltered map: lod = (levels - 1) * r * (2 - r), so
// level k holds roughness 1 - sqrt(1 - k / (levels - 1)). Against a linear mapping it spends
// more levels on the smooth end, where a lobe's width changes fastest with roughness (alpha =
// r^2 runs 0, 0.011, 0.051, 0.135, 0.306, 1 over six levels). Shaders sample at
// prefilteredLevelForRoughness(roughness, levels), clamped to 0 ... 1 roughness.
VYXGL_EXPORT float prefilteredLevelRoughness(int level, int levels);
VYXGL_EXPORT float prefilteredLevelForRoughness(float roughness, int levels);
// size x size GL_RG16F table of the split-sum's scale (r) and bias (g) for F0 with the
// height-correlated Smith visibility: x is N.V and y the roughness, both at texel centres.
// Their sum r + g is the single-scattering albedo E of a white metal; shading multiplies the
// specular term by 1 + F0 * (1 / E - 1) to put back the energy that scattering between
// microfacets reflects, which a single-scattering BRDF loses on rough surfaces. `samples` is
// the quadrature's point count per texel (1024: within 0.3% of the exact integral).
VYXGL_EXPORT Texture* createPreintegratedBRDFTable(unsigned int size, int samples = 1024);
// size x size GL_R16F table of the directional albedo of a white sheen lobe (Charlie
// distribution) at N.V (x) and sheen roughness (y): how much light the sheen takes from the
// layer under it.
VYXGL_EXPORT Texture* createSheenAlbedoTable(unsigned int size, int samples = 1024);

// Diffuse irradiance as 9 spherical-harmonic coefficients (bands 0-2), already convolved
// with the cosine lobe and divided by pi, so evaluate() answers what the N.L map holds.
struct VYXGL_EXPORT IrradianceSH
{
    QVector3D coefficients[9];
    bool valid = false;

    QVector3D evaluate(const QVector3D& direction) const;
};
// Projects a cube map read back from the GPU (from the first mip level no larger than
// maxFaceSize, which is plenty for three bands) on the CPU: 6 x 64^2 texels summed in double
// take a millisecond or two and need no program, while a GPU reduction would take several
// passes and a float read-back all the same. Not valid (with a message) for unusable sources.
VYXGL_EXPORT IrradianceSH computeIrradianceSHFromGLCubemap(Texture* cubemap, int maxFaceSize = 64);

// The diffuse (irradiance / pi) map as a size x size cube map (mipmapped, the source's float
// format), exact to the source's texels rather than to three SH bands: the first source level
// no larger than maxFaceSize is read back and summed, per block of texels (16 x 16 blocks a
// face at most), into one vector per channel, sum(radiance * solid angle * direction) / pi.
// The cosine is linear in the direction, so max(0, dot(N, vector)) is the block's exact share
// for every block wholly above or below N's horizon; only blocks the horizon cuts are
// approximated, by a few degrees' worth. Then one pass sums 1,536 blocks per texel instead of
// the N.L convolution's up to 100,000 samples. Null, with a message, for unusable sources.
VYXGL_EXPORT Texture* createIrradianceCubemapFromGLCubemap(Texture* cubemap, unsigned int size,
                                                           int maxFaceSize = 64);

} // namespace OkuImageCubemapUtils

} // namespace Tavren::Vyx
