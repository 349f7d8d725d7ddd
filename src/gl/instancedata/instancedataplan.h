#pragma once

#include "core/vyxexport.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <cstddef>

namespace Tavren::Vyx {

class ShaderProgram;

// The layout of a table of per-instance records and the GLSL that reads it: a named list of
// typed members, where each lies in a record, how many records fit, and one getter per member.
// The CPU side packs records at offset(); the getters read exactly those bytes.
//
// Packing: members keep the order they were added; each starts at the next offset aligned to
// its own alignment (its size, capped at 16; bools pack byte by byte into 32-bit words), so no
// member straddles a 16-byte slot. With vec4 storage a member also never shares a slot with a
// member of another base kind (float, int, unsigned): every slot is then a plain vec4, ivec4
// or uvec4 in the uniform block. Records are padded to whole 16-byte slots (RGBA32 texels).
//
// Use: register the plan, write `#instancedata "Name"` in the shaders that call the getters,
// and add glslc() (with "VyxUtilities.glslc", which supplies getDrawID()) to each such stage.
class VYXGL_EXPORT InstanceDataPlan
{
public:
    enum DataType {
        eTexture = 0,
        eBool,
        eBVec2,
        eBVec3,
        eBVec4,
        eInt,
        eIVec2,
        eIVec3,
        eIVec4,
        eUInt,
        eUVec2,
        eUVec3,
        eUVec4,
        eFloat,
        eVec2,
        eVec3,
        eVec4,
        eMat4,
        eDataTypeCount
    };
    enum MechanismType { eUniformBlock = 0, eTextureBuffer = 1 };

    static constexpr size_t kDefaultArraySize = 150;
    // Texels assumed for a texture buffer when GL cannot be asked.
    static constexpr int kFallbackTextureBufferTexels = 2048;

    explicit InstanceDataPlan(const QString& name);

    // A name that is no GLSL identifier, is taken, or would give a getter that is taken is
    // reported and ignored, as is any change once the plan is finalised.
    void addMember(DataType type, const QString& name);
    void setArraySize(size_t size);
    // Only after finalisation.
    size_t arraySize() const;
    size_t arraySizeMax() const { return _arraySizeMax; }
    void setMechanism(MechanismType mechanism);
    MechanismType mechanism() const { return _mechanism; }
    void setUseVec4Storage(bool use);
    bool useVec4Storage() const { return _useVec4Storage; }
    bool isFinalised() const { return _finalised; }

    bool contains(const QString& name) const { return _memberSizes.contains(name); }
    // 0 for a name the plan lacks.
    size_t dataSize(const QString& name) const { return _memberSizes.value(name, 0); }
    // eDataTypeCount for a name the plan lacks.
    DataType dataType(const QString& name) const { return _memberTypes.value(name, eDataTypeCount); }
    // Byte offset in a record; -1 before finalisation or for a name the plan lacks.
    int offset(const QString& name) const { return _memberOffsets.value(name, -1); }
    QList<QString> memberNames() const { return _memberNames; }

    struct MemberLayout
    {
        int offset;
        size_t size;
        DataType type;
    };
    // A member's offset, size and type in one lookup, for code that packs many records; null
    // before finalisation or for a name the plan lacks.
    const MemberLayout* memberLayout(const QString& name) const;

    const QList<int>& textureTokenOffsets() const { return _textureTokenOffsets; }
    // Bytes of one record, a multiple of 16 once finalised.
    size_t totalDataSize() const { return _totalDataSize; }

    QString name() const { return _name; }
    QString glslh() const { return _glslh; }
    QString glslc() const { return _glslc; }
    QString samplerIName() const;
    QString samplerFName() const;
    // "get" + the member name with its first letter upper-cased.
    static QString getterName(const QString& memberName);
    static bool isGLSLIdentifier(const QString& text);

    // Checks a linked program against the layout: block size and every field's offset (uniform
    // block), sampler types (texture buffer). False after reporting the first mismatch.
    bool assertShaderProgram(const ShaderProgram* program) const;

private:
    friend class InstanceDataRegistry;

    // Lays the members out, reads the GL limit and generates both texts; once.
    void finalise();
    void layOut();
    void applyGLLimit();
    QString generateGlslh() const;
    QString generateGlslc() const;

    bool _finalised = false;
    QString _name;
    QStringList _memberNames;
    QMap<QString, size_t> _memberSizes;
    QMap<QString, int> _memberOffsets;
    QMap<QString, DataType> _memberTypes;
    size_t _arraySize = kDefaultArraySize;
    size_t _arraySizeMax = kDefaultArraySize;
    MechanismType _mechanism = eUniformBlock;
    bool _useVec4Storage = false;
    QString _glslh;
    QString _glslc;
    QList<int> _textureTokenOffsets;
    size_t _totalDataSize = 0;
    QHash<QString, MemberLayout> _layout;
};

} // namespace Tavren::Vyx
