// The GLSL an instance-data plan generates: declarations, the table, one getter per member.
#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/instancedata/internal/instancedatalayout.h"

#include <QPair>
#include <QStringList>
#include <QVector>

namespace Tavren::Vyx {

namespace InstanceDataLayout {

const TypeInfo& typeInfo(InstanceDataPlan::DataType type)
{
    static const TypeInfo table[InstanceDataPlan::eDataTypeCount] = {
        {"VyxTextureToken", 8, 8, Kind::Uint, 2, false},
        {"bool", 1, 1, Kind::Uint, 1, true},
        {"bvec2", 2, 2, Kind::Uint, 2, true},
        {"bvec3", 4, 4, Kind::Uint, 3, true},
        {"bvec4", 4, 4, Kind::Uint, 4, true},
        {"int", 4, 4, Kind::Int, 1, false},
        {"ivec2", 8, 8, Kind::Int, 2, false},
        {"ivec3", 16, 16, Kind::Int, 3, false},
        {"ivec4", 16, 16, Kind::Int, 4, false},
        {"uint", 4, 4, Kind::Uint, 1, false},
        {"uvec2", 8, 8, Kind::Uint, 2, false},
        {"uvec3", 16, 16, Kind::Uint, 3, false},
        {"uvec4", 16, 16, Kind::Uint, 4, false},
        {"float", 4, 4, Kind::Float, 1, false},
        {"vec2", 8, 8, Kind::Float, 2, false},
        {"vec3", 16, 16, Kind::Float, 3, false},
        {"vec4", 16, 16, Kind::Float, 4, false},
        {"mat4", 64, 16, Kind::Float, 16, false},
    };
    return table[type];
}

namespace {

const char* vectorType(Kind kind)
{
    return kind == Kind::Float ? "vec4" : (kind == Kind::Int ? "ivec4" : "uvec4");
}

// The type a member is stored as in the uniform-block struct.
QString storageType(InstanceDataPlan::DataType type)
{
    return type == InstanceDataPlan::eTexture ? QStringLiteral("uvec2") : QLatin1String(typeInfo(type).glsl);
}

// Bytes std140 gives a field: three-component vectors leave their fourth word to the next.
int std140Size(const QString& type)
{
    if (type == QLatin1String("mat4"))
        return 64;
    const QChar last = type.at(type.size() - 1);
    return last.isDigit() ? 4 * last.digitValue() : 4;
}

QString filler(const char* prefix, int offset)
{
    return QStringLiteral("%1%2").arg(QLatin1String(prefix)).arg(offset);
}

QString swizzle(int first, int count)
{
    static const char* const table[4][4] = {{".x", ".xy", ".rgb", ".xyzw"},
                                            {".y", ".yz", ".yzw", nullptr},
                                            {".z", ".zw", nullptr, nullptr},
                                            {".w", nullptr, nullptr, nullptr}};
    const bool valid = first >= 0 && first < 4 && count >= 1 && count <= 4 && table[first][count - 1];
    // Written so that the GLSL compiler rejects it.
    return QLatin1String(valid ? table[first][count - 1] : ".ERROR");
}

} // namespace

QList<StructField> structFields(const InstanceDataPlan& plan)
{
    QList<StructField> fields;
    const int total = int(plan.totalDataSize());
    const QStringList members = plan.memberNames();
    if (plan.useVec4Storage()) {
        QVector<Kind> slotKinds(total / kSlotBytes, Kind::Float);
        for (const QString& name : members) {
            const TypeInfo& info = typeInfo(plan.dataType(name));
            for (int byte = plan.offset(name); byte < plan.offset(name) + info.size; byte += kSlotBytes)
                slotKinds[byte / kSlotBytes] = info.kind;
        }
        for (int slot = 0; slot < slotKinds.size(); ++slot)
            fields.append({QLatin1String(vectorType(slotKinds[slot])), filler("_data", slot * kSlotBytes),
                           slot * kSlotBytes});
        return fields;
    }
    // GLSL's own std140 placement must land every field where the plan put it: gaps get fillers.
    int glslEnd = 0;
    int end = 0;
    int boolWord = -1;
    auto fillTo = [&](int offset) {
        for (; glslEnd < offset; glslEnd += 4)
            fields.append({QStringLiteral("float"), filler("_data", glslEnd), glslEnd});
    };
    auto add = [&](const QString& type, const QString& name, int offset) {
        fillTo(offset);
        fields.append({type, name, offset});
        glslEnd = offset + std140Size(type);
    };
    for (const QString& name : members) {
        const InstanceDataPlan::DataType type = plan.dataType(name);
        const TypeInfo& info = typeInfo(type);
        const int offset = plan.offset(name);
        end = qMax(end, offset + info.size);
        if (!info.bytes) {
            add(storageType(type), name, offset);
        } else if ((offset & ~3) != boolWord) {
            boolWord = offset & ~3;
            add(QStringLiteral("uint"), filler("_data", boolWord), boolWord);
        }
    }
    for (int padding = alignUp(end, 4); padding < total; padding += 4)
        add(QStringLiteral("float"), filler("_dummy", padding), padding);
    return fields;
}

namespace {

unsigned int uniformIndex(unsigned int program, const QString& name)
{
    const QByteArray latin = name.toLatin1();
    const GLchar* text = latin.constData();
    GLuint index = GL_INVALID_INDEX;
    glGetUniformIndices(program, 1, &text, &index);
    return index;
}

int activeUniformValue(unsigned int program, const QString& name, GLenum parameter, int missing)
{
    const GLuint index = uniformIndex(program, name);
    if (index == GL_INVALID_INDEX)
        return missing;
    GLint value = missing;
    glGetActiveUniformsiv(program, 1, &index, parameter, &value);
    return value;
}

} // namespace

int activeUniformOffset(unsigned int program, const QString& name)
{
    return activeUniformValue(program, name, GL_UNIFORM_OFFSET, -1);
}

unsigned int activeUniformType(unsigned int program, const QString& name)
{
    return unsigned(activeUniformValue(program, name, GL_UNIFORM_TYPE, 0));
}

} // namespace InstanceDataLayout

using namespace InstanceDataLayout;

namespace {

// Reads one member of record `Index` for the plan's mechanism and storage.
class GetterWriter
{
public:
    explicit GetterWriter(const InstanceDataPlan& plan)
        : _plan(plan)
        , _record(plan.name() + QStringLiteral("s[ Index]."))
        , _uniform(plan.mechanism() == InstanceDataPlan::eUniformBlock)
    {
    }

    QString expression(const QString& name) const
    {
        const InstanceDataPlan::DataType type = _plan.dataType(name);
        const TypeInfo& info = typeInfo(type);
        const int offset = _plan.offset(name);
        const int slot = offset / kSlotBytes;
        QString word;
        if (_uniform && !_plan.useVec4Storage()) {
            if (!info.bytes)
                return _record + name;
            word = _record + filler("_data", offset & ~3);
        } else if (type == InstanceDataPlan::eMat4) {
            QStringList columns;
            for (int column = 0; column < 4; ++column)
                columns << slotRead(slot + column, Kind::Float).first;
            return QStringLiteral("mat4(") + columns.join(QStringLiteral(",\n            ")) + QStringLiteral(")");
        } else {
            const QPair<QString, Kind> read = slotRead(slot, info.kind);
            const int components = info.bytes ? 1 : info.components;
            const QString value = read.first + swizzle((offset % kSlotBytes) / 4, components);
            if (!info.bytes)
                return read.second == info.kind ? value : converted(components, value);
            word = read.second == Kind::Uint ? value : converted(1, value);
        }
        QStringList bits;
        for (int component = 0; component < info.components; ++component)
            bits << QStringLiteral("((%1 >> %2u) & 0xFFu) != 0u").arg(word).arg(8 * (offset % 4 + component));
        return info.components == 1 ? bits.first()
                                    : QLatin1String(info.glsl) + QLatin1Char('(') + bits.join(QStringLiteral(", ")) +
                                          QLatin1Char(')');
    }

private:
    // A whole slot of the record, and the kind the read yields.
    QPair<QString, Kind> slotRead(int slot, Kind kind) const
    {
        if (_uniform)
            return {_record + filler("_data", slot * kSlotBytes), kind};
        const QString sampler = kind == Kind::Float ? _plan.samplerFName() : _plan.samplerIName();
        return {QStringLiteral("texelFetch( %1, int( (Index * TABLE_ENTRY_PIXEL_SIZE_%2) + uint(%3) ))")
                    .arg(sampler, _plan.name())
                    .arg(slot),
                kind == Kind::Float ? Kind::Float : Kind::Int};
    }

    // Unsigned members read through the integer view keep their bits through the conversion.
    static QString converted(int components, const QString& value)
    {
        return (components == 1 ? QStringLiteral("uint") : QStringLiteral("uvec%1").arg(components)) +
               QLatin1Char('(') + value + QLatin1Char(')');
    }

    const InstanceDataPlan& _plan;
    QString _record;
    bool _uniform;
};

bool hasTextureMember(const InstanceDataPlan& plan)
{
    return !plan.textureTokenOffsets().isEmpty();
}

} // namespace

QString InstanceDataPlan::generateGlslh() const
{
    QString text = QStringLiteral("#ifndef VYX_INSTANCEDATAPLAN_%1_GLSLH\n#define VYX_INSTANCEDATAPLAN_%1_GLSLH\n").arg(_name);
    if (hasTextureMember(*this))
        text += QStringLiteral("#include \"TextureManager.glslh\"\n");
    for (const QString& name : _memberNames) {
        const QString type = QLatin1String(typeInfo(dataType(name)).glsl);
        text += QStringLiteral("%1 %2( uint Index);\n%1 %2(void);\n").arg(type, getterName(name));
    }
    text += QStringLiteral("#define %1_ARRAY_SIZE %2\n").arg(_name).arg(_arraySize);
    text += QStringLiteral("#endif // VYX_INSTANCEDATAPLAN_") + _name + QLatin1Char('\n');
    return text;
}

QString InstanceDataPlan::generateGlslc() const
{
    QString text = QStringLiteral("#version 150\n");
    if (hasTextureMember(*this))
        text += QStringLiteral("#include \"TextureManager.glslh\"\n");
    text += QStringLiteral("#include \"VyxUtilities.glslh\"\n\n");

    size_t glslRecordSize = _totalDataSize;
    if (_mechanism == eUniformBlock) {
        text += QStringLiteral("struct ") + _name + QStringLiteral(" {\n");
        int glslEnd = 0;
        for (const StructField& field : structFields(*this)) {
            text += QStringLiteral("  %1 %2;\n").arg(field.type, field.name);
            glslEnd = field.offset + std140Size(field.type);
        }
        glslRecordSize = size_t(alignUp(glslEnd, kSlotBytes));
        text += QStringLiteral("};\nlayout (std140) uniform u_%1Uniform{\n  %1 %1s[%2];\n};\n\n").arg(_name).arg(_arraySize);
    } else {
        text += QStringLiteral("uniform  samplerBuffer ") + samplerFName() + QStringLiteral(";\n");
        text += QStringLiteral("uniform isamplerBuffer ") + samplerIName() + QStringLiteral(";\n");
        text += QStringLiteral("#define TABLE_ENTRY_PIXEL_SIZE_%1 uint(%2)\n\n").arg(_name).arg(_totalDataSize / kSlotBytes);
    }
    const int cppBytes = int(_arraySize * _totalDataSize);
    const int glslBytes = int(_arraySize * glslRecordSize);
    VYX_CHECK_CONTINUE(cppBytes == glslBytes,
                       "CPP (%d * %d = %d) and GLSL (%d) disagree on the size of the instance data buffer. Check "
                       "alignment code",
                       int(_arraySize), int(_totalDataSize), cppBytes, glslBytes);

    const GetterWriter writer(*this);
    for (const QString& name : _memberNames) {
        const int offset = _memberOffsets.value(name);
        text += QStringLiteral("%1 %2(uint Index) { return %3; } // off %4 %5 (%6:%7)\n")
                    .arg(QLatin1String(typeInfo(dataType(name)).glsl), getterName(name), writer.expression(name))
                    .arg(offset)
                    .arg(dataSize(name))
                    .arg(offset / kSlotBytes)
                    .arg((offset % kSlotBytes) / 4);
    }
    for (const QString& name : _memberNames) {
        text += QStringLiteral("%1 %2(void)       { return %2( uint(getDrawID())); }\n")
                    .arg(QLatin1String(typeInfo(dataType(name)).glsl), getterName(name));
    }
    return text;
}

} // namespace Tavren::Vyx
