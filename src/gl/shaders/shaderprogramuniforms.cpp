#include "gl/shaders/shaderprogram.h"

#include "core/logging.h"
#include "gl/platform/rangedvalue.h"

#include <QColor>
#include <QGenericMatrix>
#include <QImage>
#include <QMatrix4x4>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>

#include "gl/glloader.h"
#include "gl/shaders/internal/shaderprogramparts.h"

namespace Tavren::Vyx {

void registerUniformMetaTypes()
{
    static const bool registered = [] {
        qRegisterMetaType<QMatrix3x3>("QMatrix3x3");
        qRegisterMetaType<QMatrix4x2>("QMatrix4x2");
        qRegisterMetaType<RangedFloat>("Tavren::Vyx::RangedFloat");
        qRegisterMetaType<RangedDouble>("Tavren::Vyx::RangedDouble");
        return true;
    }();
    Q_UNUSED(registered);
}

bool ShaderProgram::setUniform(int location, int value)
{
    glUniform1i(location, value);
    return true;
}

bool ShaderProgram::setUniform(int location, unsigned value)
{
    glUniform1ui(location, value);
    return true;
}

bool ShaderProgram::setUniform(int location, const QVector<float>& values)
{
    if (location < 0)
        return false;
    glUniform1fv(location, GLsizei(values.size()), values.constData());
    return true;
}

bool ShaderProgram::setUniform(const QString& name, const QVector<float>& values)
{
    return setUniform(getUniformLocation(name), values);
}

bool ShaderProgram::setUniform(const QString& name, const QVariant& value)
{
    const int location = getUniformLocation(name);
    if (location < 0)
        return false;
    return setUniform(location, value);
}

bool ShaderProgram::setUniform(int location, const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::QImage: // kept: hosts pass texture units through image-typed properties
        glUniform1i(location, value.toInt());
        return true;
    case QMetaType::UInt:
        glUniform1ui(location, value.toUInt());
        return true;
    case QMetaType::Double:
    case QMetaType::Float:
        glUniform1f(location, value.toFloat());
        return true;
    case QMetaType::QColor: {
        const QColor color = qvariant_cast<QColor>(value);
        glUniform4f(location, float(color.red() / 255.0), float(color.green() / 255.0), float(color.blue() / 255.0),
                    float(color.alpha() / 255.0));
        return true;
    }
    case QMetaType::QMatrix4x4: {
        const QMatrix4x4 matrix = qvariant_cast<QMatrix4x4>(value);
        GLfloat values[16];
        std::copy(matrix.constData(), matrix.constData() + 16, values);
        glUniformMatrix4fv(location, 1, GL_FALSE, values);
        return true;
    }
    case QMetaType::QVector2D: {
        const QVector2D v = qvariant_cast<QVector2D>(value);
        glUniform2f(location, v.x(), v.y());
        return true;
    }
    case QMetaType::QVector3D: {
        const QVector3D v = qvariant_cast<QVector3D>(value);
        glUniform3f(location, v.x(), v.y(), v.z());
        return true;
    }
    case QMetaType::QVector4D: {
        const QVector4D v = qvariant_cast<QVector4D>(value);
        glUniform4f(location, v.x(), v.y(), v.z(), v.w());
        return true;
    }
    default:
        break;
    }

    const int type = value.userType();
    if (type == qMetaTypeId<QMatrix3x3>()) {
        const QMatrix3x3 matrix = qvariant_cast<QMatrix3x3>(value);
        GLfloat values[9];
        std::copy(matrix.constData(), matrix.constData() + 9, values);
        glUniformMatrix3fv(location, 1, GL_FALSE, values);
    } else if (type == qMetaTypeId<QMatrix4x2>()) {
        const QMatrix4x2 matrix = qvariant_cast<QMatrix4x2>(value);
        GLfloat values[8];
        std::copy(matrix.constData(), matrix.constData() + 8, values);
        glUniformMatrix4x2fv(location, 1, GL_FALSE, values);
    } else if (type == qMetaTypeId<RangedFloat>()) {
        glUniform1f(location, qvariant_cast<RangedFloat>(value).value);
    } else if (type == qMetaTypeId<RangedDouble>()) {
        glUniform1f(location, float(qvariant_cast<RangedDouble>(value).value));
    } else {
        const char* typeName = value.typeName();
        VYX_CRITICAL("VyxShaderProgram::setUniform is not implemented for type : %s", typeName ? typeName : "Invalid");
    }
    return true;
}

} // namespace Tavren::Vyx
