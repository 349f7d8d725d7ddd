#include "gl/shaders/shaderprogram.h"

#include "gl/shaders/glslmacroprocessor.h"

#include <QFile>
#include <QTextStream>

#include "gl/glloader.h"
#include "gl/shaders/internal/shaderprogramparts.h"

namespace Tavren::Vyx {

Shader::Shader(unsigned type, const QString& source, QObject* parent)
    : Shader(type, source, nullptr, parent)
{
}

Shader::Shader(unsigned type, const QString& source, GLSLMacroProcessor* mp, QObject* parent)
    : QObject(parent)
    , _shaderType(int(type))
    , _source(GLSLMacroProcessor::process(source, mp))
{
}

Shader::~Shader()
{
    if (_shaderID != kShaderNotCompiled)
        glDeleteShader(_shaderID);
}

QString Shader::shaderTypeName(int type)
{
    switch (type) {
    case GL_FRAGMENT_SHADER: return QStringLiteral("GL_FRAGMENT_SHADER");
    case GL_VERTEX_SHADER: return QStringLiteral("GL_VERTEX_SHADER");
    case GL_GEOMETRY_SHADER: return QStringLiteral("GL_GEOMETRY_SHADER");
    case GL_TESS_CONTROL_SHADER: return QStringLiteral("GL_TESS_CONTROL_SHADER");
    case GL_TESS_EVALUATION_SHADER: return QStringLiteral("GL_TESS_EVALUATION_SHADER");
    default: return QStringLiteral("unknown");
    }
}

void Shader::startCompile()
{
    if (_shaderID != kShaderNotCompiled)
        return;
    _shaderID = glCreateShader(GLenum(_shaderType));
    const QByteArray text = _source.toLocal8Bit();
    const GLchar* strings[] = {text.constData()};
    const GLint lengths[] = {GLint(text.size())};
    glShaderSource(_shaderID, 1, strings, lengths);
    glCompileShader(_shaderID);
    _compilePending = true;
}

bool Shader::compile()
{
    if (_shaderID != kShaderNotCompiled && !_compilePending)
        return true;
    startCompile();
    _compilePending = false;

    GLint status = GL_FALSE;
    glGetShaderiv(_shaderID, GL_COMPILE_STATUS, &status);
    if (status == GL_TRUE)
        return true;

    _log = readInfoLog(_shaderID, glGetShaderiv, glGetShaderInfoLog);

    QString message = QStringLiteral("Failed to compile GL shader\n");
    message += QStringLiteral(" Shader Type = %1\n").arg(shaderTypeName(_shaderType));
    message += QStringLiteral(" =======Source======\n");
    appendNumberedSource(message, _source);
    message += QStringLiteral(" =======Log=========\n");
    message += _log;
    printLines(message);

    glDeleteShader(_shaderID);
    _shaderID = kShaderNotCompiled;
    return false;
}

void Shader::clearSource()
{
    _source = QString();
}

void Shader::dumpSourceCode(const QString& fileName) const
{
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return;
    QTextStream stream(&file);
    stream << _source;
    stream.flush();
    file.close();
}

} // namespace Tavren::Vyx
