#include "gl/shaders/shaderprogram.h"

#include "gl/shaders/shadercachemanager.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QStringList>

#include "gl/glloader.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/internal/shaderprogramparts.h"

namespace Tavren::Vyx {

namespace {

// A cache record is the driver's program binary followed by its format, 4 bytes big-endian.
void appendFormat(QByteArray& binary, GLenum format)
{
    binary.append(char((format >> 24) & 0xFF));
    binary.append(char((format >> 16) & 0xFF));
    binary.append(char((format >> 8) & 0xFF));
    binary.append(char(format & 0xFF));
}

// The size of the record's binary (0 or less for a record too short to hold one) and its format.
int decodeCacheRecord(const QByteArray& record, GLenum& format)
{
    if (record.size() <= 4)
        return 0;
    const uchar* tail = reinterpret_cast<const uchar*>(record.constData()) + record.size() - 4;
    format = (GLenum(tail[0]) << 24) | (GLenum(tail[1]) << 16) | (GLenum(tail[2]) << 8) | GLenum(tail[3]);
    return record.size() - 4;
}

// Drops errors a rejected binary leaves behind, so they are not blamed on later calls.
void drainGLErrors()
{
    for (int i = 0; i < 10 && glGetError() != GL_NO_ERROR; ++i) {
    }
}

} // namespace

void lookUpProgramBinaryEntryPoints()
{
    // A context with only the OES extension has its pair looked up but never uses binaries:
    // isProgramBinariesSupported() needs glProgramParameteri as well.
    if (hasGLCapability(GLCapability::ProgramBinaryExtension)) {
        glCapability(GLCapability::GetProgramBinary);
        glCapability(GLCapability::ProgramBinary);
        glCapability(GLCapability::ProgramParameteri);
    } else if (hasGLCapability(GLCapability::ProgramBinaryOESExtension)) {
        glCapability(GLCapability::GetProgramBinaryOES);
        glCapability(GLCapability::ProgramBinaryOES);
    }
}

bool hintBinaryRetrievable(GLuint program)
{
    if (!ShaderProgram::isProgramBinariesSupported())
        return false;
    glCapabilityFunction<PFNVYXGLPROGRAMPARAMETERIPROC>(GLCapability::ProgramParameteri)(
        program, GL_PROGRAM_BINARY_RETRIEVABLE_HINT, GL_TRUE);
    return true;
}

bool ShaderProgram::isProgramBinariesSupported()
{
    return hasGLCapability(GLCapability::ProgramBinaryExtension) && hasGLCapability(GLCapability::GetProgramBinary)
           && hasGLCapability(GLCapability::ProgramBinary) && hasGLCapability(GLCapability::ProgramParameteri);
}

QString ShaderProgram::constructShaderHash() const
{
    QStringList digests;
    for (const Shader* shader : _shaders)
        digests.append(QString::fromLatin1(
            QCryptographicHash::hash(shader->sourceCode().toUtf8(), QCryptographicHash::Md5).toHex()));
    digests.sort();
    return QString::fromLatin1(
        QCryptographicHash::hash(digests.join(QString()).toUtf8(), QCryptographicHash::Md5).toHex());
}

bool ShaderProgram::cachedLoadLink()
{
    _preprocessed = true;
    const QString key = constructShaderHash();
    if (loadLink(key))
        return true;

    if (compile() && link()) {
        GLint status = GL_FALSE;
        glGetProgramiv(_programID, GL_LINK_STATUS, &status);
        if (status == GL_TRUE)
            writeBinary(key);
    }
    return false;
}

bool ShaderProgram::loadLink(const QString& key)
{
    if (!isProgramBinariesSupported())
        return false;
    _preprocessed = true;
    QByteArray data;
    if (!ShaderCacheManager::Instance().loadCacheFile(key, data))
        return false;
    GLenum format = 0;
    const int binarySize = decodeCacheRecord(data, format);
    if (binarySize <= 0) {
        qDebug("Shader cache entry %s is too short; compiling instead", qPrintable(key));
        return false;
    }
    const GLuint program = glCreateProgram();
    glCapabilityFunction<PFNVYXGLPROGRAMBINARYPROC>(GLCapability::ProgramBinary)(program, format, data.constData(),
                                                                                binarySize);
    GLint status = GL_FALSE;
    glGetProgramiv(program, GL_LINK_STATUS, &status);
    if (status != GL_TRUE) {
        // A binary from another driver or a damaged file: compile from source instead.
        qDebug("Shader cache entry %s was rejected by the driver; compiling instead", qPrintable(key));
        drainGLErrors();
        glDeleteProgram(program);
        return false;
    }
    if (_programID != kShaderProgramNotLinked)
        glDeleteProgram(_programID);
    _programID = program;
    fillLinkCaches();
    return true;
}

bool ShaderProgram::writeBinary(const QString& key)
{
    if (ShaderCacheManager::isReadOnlyMode()) {
        qDebug("Tarn is in read-only mode, so it will not attempt to write the binary.");
        return false;
    }
    if (_programID == kShaderProgramNotLinked || !hintBinaryRetrievable(_programID))
        return false;
    GLint length = 0;
    glGetProgramiv(_programID, GL_PROGRAM_BINARY_LENGTH, &length);
    if (length <= 0)
        return false;

    QByteArray data(length, '\0');
    GLsizei written = 0;
    GLenum format = 0;
    glCapabilityFunction<PFNVYXGLGETPROGRAMBINARYPROC>(GLCapability::GetProgramBinary)(_programID, length, &written,
                                                                                      &format, data.data());
    if (written <= 0 || written > length)
        return false;
    data.truncate(written);
    appendFormat(data, format);
    return ShaderCacheManager::Instance().writeCacheFile(key, data);
}

} // namespace Tavren::Vyx
