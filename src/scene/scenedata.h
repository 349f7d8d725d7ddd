#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QMatrix4x4>
#include <QQuaternion>
#include <QString>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <vector>

namespace Tavren::Vyx {

// A glTF scene as plain CPU-side data: every array decoded, every index checked against the array
// it refers to (-1 where the file gives none). Nothing here needs a GL context.
struct VYXGL_EXPORT SceneData
{
    struct Node
    {
        QString name;
        std::vector<int> children;
        // The file's matrix when it gives one, else T * R * S.
        bool hasMatrix = false;
        QMatrix4x4 matrix;
        QVector3D translation;
        QQuaternion rotation;
        QVector3D scale{1, 1, 1};
        int mesh = -1, camera = -1, light = -1, skin = -1;
        // EXT_mesh_gpu_instancing: the mesh is drawn once per matrix, each placed by
        // world * instance; empty: drawn once, by the node's world matrix.
        std::vector<QMatrix4x4> instances;
        // Morph weights for this node's mesh, overriding the mesh's defaults; empty: the mesh's.
        std::vector<float> weights;

        QMatrix4x4 localMatrix() const;
    };

    // Attributes are tightly packed per vertex, whatever the file's strides, component types and
    // sparse substitutions were: normalised integers become floats in [0, 1] or [-1, 1], plain
    // integers (KHR_mesh_quantization) their values.
    struct Primitive
    {
        // glTF's modes. Strips, loops and fans arrive unrolled into lists, so a read primitive
        // is always points, lines or triangles.
        enum Mode { kPoints = 0, kLines = 1, kLineLoop = 2, kLineStrip = 3, kTriangles = 4, kTriangleStrip = 5, kTriangleFan = 6 };
        int mode = kTriangles;
        int material = -1;
        std::vector<float> positions;              // 3 per vertex
        // 3 per vertex. Triangles always have them: flat ones are made when the file gives none.
        std::vector<float> normals;
        // 4 per vertex (xyz and handedness w), relative to the normal map's texture coordinate
        // set: the file's, else generated in the MikkTSpace convention when the material has a
        // normal map; otherwise none.
        std::vector<float> tangents;
        std::vector<std::vector<float>> texCoords; // TEXCOORD_n: 2 per vertex
        std::vector<float> colors;                 // COLOR_0 as RGBA, or none
        // JOINTS_n and WEIGHTS_n of sets 0 and 1: per vertex, 4 values of each set in turn; none
        // without a skin's attributes. Joints index the skin's joint list.
        int influenceSets = 0;
        std::vector<quint32> joints;
        std::vector<float> weights;
        // Morph targets: deltas of 3 floats per vertex for each attribute the target moves
        // (tangent deltas without handedness), else empty.
        struct MorphTarget
        {
            std::vector<float> positions, normals, tangents;
        };
        std::vector<MorphTarget> targets;
        // Empty without an index accessor: vertices are drawn in order.
        bool indexed = false;
        std::vector<quint32> indices;

        size_t vertexCount() const { return positions.size() / 3; }
    };

    struct Mesh
    {
        QString name;
        std::vector<Primitive> primitives;
        // Default morph weights, one per target (the most any primitive has); zeros when the
        // file gives none.
        std::vector<float> weights;
    };

    // KHR_texture_transform: uv' = translate(offset) * rotate(rotation) * scale(scale) * uv.
    struct TextureTransform
    {
        QVector2D offset{0, 0};
        float rotation = 0.0f; // radians, counter-clockwise in UV space
        QVector2D scale{1, 1};

        bool isIdentity() const { return offset.isNull() && rotation == 0.0f && scale == QVector2D(1, 1); }
        // The two rows of the 3x3 affine matrix, as (m0, m1, m2) per row.
        void rows(float row0[3], float row1[3]) const;
    };

    struct TextureRef
    {
        int texture = -1;
        // The set the texture reads, after any texture transform's override.
        int texCoord = 0;
        // The normal map's scale or the occlusion map's strength; 1 for the others.
        float scale = 1.0f;
        TextureTransform transform;
    };

    struct Material
    {
        enum AlphaMode { Opaque, Mask, Blend };
        QString name;
        QVector4D baseColorFactor{1, 1, 1, 1};
        float metallicFactor = 1.0f;
        float roughnessFactor = 1.0f;
        QVector3D emissiveFactor;
        TextureRef baseColorTexture, metallicRoughnessTexture, normalTexture, occlusionTexture, emissiveTexture;
        AlphaMode alphaMode = Opaque;
        float alphaCutoff = 0.5f;
        bool doubleSided = false;
        bool unlit = false;            // KHR_materials_unlit
        float emissiveStrength = 1.0f; // KHR_materials_emissive_strength

        // The layers and lobes beyond metal-roughness a material asks for; each one that is
        // absent leaves its defaults, which shade as metal-roughness alone does.
        enum Extension {
            Clearcoat = 1 << 0,
            Specular = 1 << 1, // KHR_materials_specular, or an index of refraction other than 1.5
            Sheen = 1 << 2,
            Transmission = 1 << 3, // with KHR_materials_volume when it has a thickness
            SpecularGlossiness = 1 << 4,
        };
        int extensions = 0;
        float ior = 1.5f;
        struct
        {
            float factor = 0.0f, roughness = 0.0f;
            TextureRef texture, roughnessTexture, normalTexture; // red, green, and a normal map with its scale
        } clearcoat;
        struct
        {
            float factor = 1.0f;
            QVector3D colorFactor{1, 1, 1};
            TextureRef texture, colorTexture; // alpha, and sRGB colour
        } specular;
        struct
        {
            QVector3D colorFactor;
            float roughness = 0.0f;
            TextureRef colorTexture, roughnessTexture; // sRGB colour, and alpha
        } sheen;
        struct
        {
            float factor = 0.0f;
            TextureRef texture; // red
            float thickness = 0.0f; // in the mesh's own units; 0 is a thin wall
            TextureRef thicknessTexture; // green
            float attenuationDistance = 0.0f; // 0: light is not absorbed
            QVector3D attenuationColor{1, 1, 1};
        } transmission;
        // Specular-glossiness materials keep their diffuse colour and texture in baseColor*; the
        // specular-glossiness texture (sRGB colour, glossiness in alpha) has its own reference.
        struct
        {
            QVector3D specularFactor{1, 1, 1};
            float glossiness = 1.0f;
            TextureRef texture;
        } specularGlossiness;

        // Every texture reference of the material, its extensions' included.
        std::vector<const TextureRef*> textureRefs() const
        {
            return {&baseColorTexture,          &metallicRoughnessTexture,      &normalTexture,
                    &occlusionTexture,          &emissiveTexture,               &clearcoat.texture,
                    &clearcoat.roughnessTexture, &clearcoat.normalTexture,      &specular.texture,
                    &specular.colorTexture,     &sheen.colorTexture,            &sheen.roughnessTexture,
                    &transmission.texture,      &transmission.thicknessTexture, &specularGlossiness.texture};
        }
    };

    // GL enum values as the file gives them; 0 for a filter the file leaves open.
    struct Sampler
    {
        static constexpr int kRepeat = 10497;
        int minFilter = 0;
        int magFilter = 0;
        int wrapS = kRepeat;
        int wrapT = kRepeat;
    };

    struct Texture
    {
        int source = -1;
        int sampler = -1;
    };

    // Encoded bytes (from a buffer view or a data URI) or the resolved path of an external file;
    // neither when the file could not be found, which was reported once.
    struct Image
    {
        QString name;
        QString uri;
        QString mimeType;
        QByteArray bytes;
        QString path;
    };

    struct Camera
    {
        QString name;
        bool orthographic = false;
        // As the file gives them, so that derived values round the same way in every step.
        double yfov = 0, aspectRatio = 0; // radians; aspect 0 when the file leaves it open
        double xmag = 0, ymag = 0;
        double znear = 0, zfar = 0; // zfar 0: infinite perspective
    };

    struct Light
    {
        enum Type { Directional, Point, Spot };
        QString name;
        Type type = Point;
        QVector3D color{1, 1, 1};
        float intensity = 1.0f;
        float range = 0.0f; // 0: unlimited
        float innerConeAngle = 0.0f, outerConeAngle = 0.0f;
    };

    // A skin that cannot be applied (a joint outside the scene, too few inverse bind matrices)
    // arrives with no joints, and its meshes draw unskinned.
    struct Skin
    {
        QString name;
        std::vector<int> joints;
        int skeleton = -1;
        std::vector<QMatrix4x4> inverseBindMatrices; // one per joint
    };

    struct Animation
    {
        struct Sampler
        {
            std::vector<float> input;  // key times
            std::vector<float> output; // outputComponents per key (or per key and morph weight)
            int outputComponents = 0;
            QString interpolation;
        };
        struct Channel
        {
            int sampler = -1;
            int node = -1;
            QString path; // "translation", "rotation", "scale" or "weights"
        };
        QString name;
        std::vector<Sampler> samplers;
        std::vector<Channel> channels;
    };

    std::vector<Node> nodes;
    // The nodes the scene starts from: the default (or first) scene's, else every node without
    // a parent. Each node is reached at most once from them.
    std::vector<int> roots;
    std::vector<Mesh> meshes;
    std::vector<Material> materials;
    std::vector<Texture> textures;
    std::vector<Sampler> samplers;
    std::vector<Image> images;
    std::vector<Camera> cameras;
    std::vector<Light> lights;
    std::vector<Skin> skins;
    std::vector<Animation> animations;
};

} // namespace Tavren::Vyx
