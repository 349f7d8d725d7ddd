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
// per face): pass a small mip or use the SH irradiance below when speed matters.
VYXGL_EXPORT Texture* createGLCubemapNDotLFromGLCubemap(Texture* cubemap, unsigned int size, int levelCount,
                                                        int firstLevel, float levelPow);

// Prefiltered specular map for the split-sum approximation: a size x size cube map with
// `levels` mip levels, level k prefiltered with GGX at roughness k / (levels - 1) (level 0 is
// the source, resampled). The source should be mipmapped: samples read the mip level matching
// their solid angle, so `samples` stays small. Sample at lod = roughness * (levels - 1).
VYXGL_EXPORT Texture* createPrefilteredEnvMapFromGLCubemap(Texture* cubemap, unsigned int size, int levels,
                                                           int samples = 64);
// size x size GL_RG16F table of the split-sum's scale (r) and bias (g) for F0: x is N.V and
// y the roughness, both at texel centres.
VYXGL_EXPORT Texture* createPreintegratedBRDFTable(unsigned int size, int samples = 1024);

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

} // namespace OkuImageCubemapUtils

} // namespace Tavren::Vyx
