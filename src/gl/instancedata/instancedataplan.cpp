#include "gl/instancedata/instancedataplan.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/instancedata/internal/instancedatalayout.h"
#include "gl/shaders/shaderprogram.h"

#include <QRegularExpression>

namespace Tavren::Vyx {

using namespace InstanceDataLayout;

InstanceDataPlan::InstanceDataPlan(const QString& name)
    : _name(name)
{
}

bool InstanceDataPlan::isGLSLIdentifier(const QString& text)
{
    static const QRegularExpression pattern(QStringLiteral("^[a-zA-Z_][a-zA-Z_0-9]*$"));
    return pattern.match(text).hasMatch();
}

QString InstanceDataPlan::getterName(const QString& memberName)
{
    return QStringLiteral("get%1%2").arg(memberName.left(1).toUpper(), memberName.mid(1));
}

QString InstanceDataPlan::samplerIName() const
{
    return QStringLiteral("u_i") + _name + QStringLiteral("Sampler");
}

QString InstanceDataPlan::samplerFName() const
{
    return QStringLiteral("u_f") + _name + QStringLiteral("Sampler");
}

void InstanceDataPlan::addMember(DataType type, const QString& name)
{
    VYX_CHECK_RETURN(false == _finalised, ,
                     "InstanceDataPlan::addMember( '%s') : plan '%s' is finalised; its layout is fixed",
                     qPrintable(name), qPrintable(_name));
    if (type < eTexture || type >= eDataTypeCount) {
        // Only the type is remembered, so dataType() answers what was asked for.
        _memberTypes[name] = type;
        VYX_WARNING("InstanceDataPlan::addMember( '%s') : data type %d ignored in plan '%s'", qPrintable(name),
                    int(type), qPrintable(_name));
        return;
    }
    // Fillers are named "_data..." and "_dummy..." and GLSL reserves "gl_" and "__".
    const bool reserved = name.startsWith(QLatin1String("_data")) || name.startsWith(QLatin1String("_dummy")) ||
                          name.startsWith(QLatin1String("gl_")) || name.contains(QLatin1String("__"));
    VYX_CHECK_RETURN(isGLSLIdentifier(name) && !reserved, ,
                     "InstanceDataPlan::addMember( '%s') : not a usable GLSL identifier in plan '%s'", qPrintable(name),
                     qPrintable(_name));
    for (const QString& existing : qAsConst(_memberNames)) {
        VYX_CHECK_RETURN(getterName(existing) != getterName(name), ,
                         "InstanceDataPlan::addMember( '%s') : clashes with member '%s' of plan '%s'", qPrintable(name),
                         qPrintable(existing), qPrintable(_name));
    }
    _memberNames.append(name);
    _memberSizes[name] = size_t(typeInfo(type).size);
    _memberTypes[name] = type;
}

const InstanceDataPlan::MemberLayout* InstanceDataPlan::memberLayout(const QString& name) const
{
    const auto it = _layout.constFind(name);
    return it == _layout.constEnd() ? nullptr : &it.value();
}

void InstanceDataPlan::setArraySize(size_t size)
{
    if (VYX_CHECK_AS(!_finalised, "false == _finalised",
                     "InstanceDataPlan::setArraySize() can only be called before the plan has been finalised") &&
        VYX_CHECK(size > 0, "InstanceDataPlan::setArraySize() : GLSL has no empty arrays (plan '%s')",
                  qPrintable(_name)))
        _arraySize = size;
}

size_t InstanceDataPlan::arraySize() const
{
    VYX_CHECK_AS(_finalised, "true == _finalised",
                 "InstanceDataPlan::arraySize() can only be called after the plan has been finalised");
    return _arraySize;
}

void InstanceDataPlan::setMechanism(MechanismType mechanism)
{
    if (VYX_CHECK_AS(!_finalised, "false == _finalised",
                     "InstanceDataPlan::setMechanism() can only be called before the plan has been finalised"))
        _mechanism = mechanism;
}

void InstanceDataPlan::setUseVec4Storage(bool use)
{
    if (VYX_CHECK_AS(!_finalised, "false == _finalised",
                     "InstanceDataPlan::setUseVec4Storage() can only be called before the plan has been finalised"))
        _useVec4Storage = use;
}

void InstanceDataPlan::finalise()
{
    if (_finalised)
        return;
    VYX_CHECK_CONTINUE(!_memberNames.isEmpty(), "Plan '%s' has no members; its GLSL will not compile",
                       qPrintable(_name));
    layOut();
    applyGLLimit();
    _glslh = generateGlslh();
    _glslc = generateGlslc();
    _finalised = true;
}

void InstanceDataPlan::layOut()
{
    _memberOffsets.clear();
    _layout.clear();
    _textureTokenOffsets.clear();
    int end = 0;
    Kind lastKind = Kind::Float;
    for (const QString& name : qAsConst(_memberNames)) {
        const DataType type = _memberTypes.value(name);
        const TypeInfo& info = typeInfo(type);
        int offset = alignUp(end, info.align);
        // A slot holds one base kind only, so it can be declared as one vector type.
        const bool sharesSlot = end % kSlotBytes != 0 && offset / kSlotBytes == (end - 1) / kSlotBytes;
        if (_useVec4Storage && sharesSlot && info.kind != lastKind)
            offset = alignUp(end, kSlotBytes);
        _memberOffsets[name] = offset;
        _layout.insert(name, {offset, size_t(info.size), type});
        if (type == eTexture)
            _textureTokenOffsets.append(offset);
        end = offset + info.size;
        lastKind = info.kind;
    }
    // The last bool word counts whole; float fillers then round up to a whole slot.
    _totalDataSize = size_t(alignUp(alignUp(end, 4), kSlotBytes));
}

void InstanceDataPlan::applyGLLimit()
{
    const QByteArray nameText = _name.toLocal8Bit();
    const char* const plan = nameText.constData();
    if (!glGetIntegerv)
        VYX_WARNING("OpenGL has not been initialised. No way it obtain correct maximum InstanceData table size for '%s'",
                    plan);
    if (_mechanism == eUniformBlock) {
        if (!glGetIntegerv)
            return;
        GLint maximum = 0;
        glGetIntegerv(GL_MAX_UNIFORM_BLOCK_SIZE, &maximum);
        if (maximum > 0 && _totalDataSize != 0) {
            _arraySizeMax = size_t(maximum) / _totalDataSize;
            _arraySize = qMin(_arraySize, _arraySizeMax);
        }
        VYX_DEBUG("uni: size %4d max %4d plan '%s'", int(_arraySize), int(_arraySizeMax), plan);
        VYX_CHECK_CONTINUE(_arraySize > 0, "One record of plan '%s' (%d bytes) is larger than a uniform block may be",
                           plan, int(_totalDataSize));
        return;
    }
    GLint texels = kFallbackTextureBufferTexels;
    if (glGetIntegerv)
        glGetIntegerv(GL_MAX_TEXTURE_BUFFER_SIZE, &texels);
    // Deliberately not clamped: the table may grow past what one binding shows.
    if (_totalDataSize != 0)
        _arraySizeMax = size_t(qMax(texels, 0)) * kSlotBytes / _totalDataSize;
    VYX_DEBUG("txt: size %4d max %4d plan '%s'", int(_arraySize), int(_arraySizeMax), plan);
}

bool InstanceDataPlan::assertShaderProgram(const ShaderProgram* program) const
{
    VYX_CHECK_RETURN(program && program->isLinked() && _finalised, false,
                     "Plan '%s' can only check a linked program once finalised", qPrintable(_name));
    const GLuint id = program->shaderProgramID();
    if (_mechanism == eTextureBuffer) {
        const QString names[] = {samplerFName(), samplerIName()};
        const GLenum types[] = {GL_SAMPLER_BUFFER, GL_INT_SAMPLER_BUFFER};
        for (int i = 0; i < 2; ++i) {
            const GLenum type = activeUniformType(id, names[i]);
            VYX_CHECK_RETURN(type == 0 || type == types[i], false, "Uniform '%s' of program %u has type 0x%X, not 0x%X",
                             qPrintable(names[i]), id, type, types[i]);
        }
        return true;
    }
    const QString blockName = QStringLiteral("u_") + _name + QStringLiteral("Uniform");
    const int block = program->getUniformBlockIndex(blockName);
    VYX_CHECK_RETURN(block >= 0, false, "Program %u has no uniform block '%s'", id, qPrintable(blockName));
    GLint blockSize = 0;
    glGetActiveUniformBlockiv(id, GLuint(block), GL_UNIFORM_BLOCK_DATA_SIZE, &blockSize);
    VYX_CHECK_RETURN(size_t(blockSize) == _arraySize * _totalDataSize, false,
                     "Block '%s' of program %u holds %d bytes, the plan %d", qPrintable(blockName), id, blockSize,
                     int(_arraySize * _totalDataSize));
    for (const StructField& field : structFields(*this)) {
        const int linked = activeUniformOffset(id, _name + QStringLiteral("s[0].") + field.name);
        VYX_CHECK_RETURN(linked < 0 || linked == field.offset, false,
                         "'%s' of plan '%s' lies at %d in program %u, not %d", qPrintable(field.name),
                         qPrintable(_name), linked, id, field.offset);
    }
    return true;
}

} // namespace Tavren::Vyx
