#include "gl/shaderprogram.h"

#include "core/logging.h"
#include "core/resourcespath.h"
#include "gl/glslmacroprocessor.h"
#include "gl/glutilities.h"
#include "gl/internal/percontextrecords.h"
#include "gl/rangedvalue.h"
#include "gl/shadercachemanager.h"

#include <QColor>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGenericMatrix>
#include <QImage>
#include <QMatrix4x4>
#include <QTextStream>
#include <QThread>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <cstring>

#include "gl/glloader.h"

namespace Tavren::Vyx {

namespace {

struct CurrentProgramRecord
{
    ShaderProgram* program = nullptr;
};

PerContextRecords<CurrentProgramRecord>& currentPrograms()
{
    static PerContextRecords<CurrentProgramRecord> records;
    return records;
}

// Resolved once per process by the first program made where the extension is present.
PFNVYXGLGETPROGRAMBINARYPROC s_getProgramBinary = nullptr;
PFNVYXGLPROGRAMBINARYPROC s_programBinary = nullptr;
PFNVYXGLPROGRAMPARAMETERIPROC s_programParameteri = nullptr;

void resolveProgramBinaryEntryPoints()
{
    if (s_getProgramBinary)
        return;
    if (hasGLExtension("GL_ARB_get_program_binary")) {
        s_getProgramBinary = reinterpret_cast<PFNVYXGLGETPROGRAMBINARYPROC>(getGLProcAddress("glGetProgramBinary", false));
        s_programBinary = reinterpret_cast<PFNVYXGLPROGRAMBINARYPROC>(getGLProcAddress("glProgramBinary", false));
        s_programParameteri =
            reinterpret_cast<PFNVYXGLPROGRAMPARAMETERIPROC>(getGLProcAddress("glProgramParameteri", false));
    } else if (hasGLExtension("GL_OES_get_program_binary")) {
        // Without glProgramParameteri binaries stay unused: isProgramBinariesSupported() needs all three.
        s_getProgramBinary =
            reinterpret_cast<PFNVYXGLGETPROGRAMBINARYPROC>(getGLProcAddress("glGetProgramBinaryOES", false));
        s_programBinary = reinterpret_cast<PFNVYXGLPROGRAMBINARYPROC>(getGLProcAddress("glProgramBinaryOES", false));
    }
}

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

// Appends "   n : line\n" for every line, numbered from 1.
void appendNumberedSource(QString& message, const QString& source)
{
    const QStringList lines = source.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i)
        message += QStringLiteral("%1 : %2\n").arg(i + 1, 4).arg(lines.at(i));
}

void printLines(const QString& message)
{
    const QStringList pieces = message.split(QLatin1Char('\n'));
    for (const QString& piece : pieces)
        qWarning("%s", qPrintable(piece));
}

QString programInfoLog(GLuint program)
{
    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    if (length <= 0)
        return QString();
    QByteArray log(length, '\0');
    GLsizei written = 0;
    glGetProgramInfoLog(program, length, &written, log.data());
    return QString::fromLocal8Bit(log.constData(), qBound(0, int(written), length));
}

QString stageLabel(int type)
{
    switch (type) {
    case GL_VERTEX_SHADER: return QStringLiteral("VS");
    case GL_TESS_CONTROL_SHADER: return QStringLiteral("TCS");
    case GL_TESS_EVALUATION_SHADER: return QStringLiteral("TES");
    case GL_GEOMETRY_SHADER: return QStringLiteral("GS");
    case GL_FRAGMENT_SHADER: return QStringLiteral("FS");
    default: return QString();
    }
}

// Drops errors a rejected binary leaves behind, so they are not blamed on later calls.
void drainGLErrors()
{
    for (int i = 0; i < 10 && glGetError() != GL_NO_ERROR; ++i) {
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Shader

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

    GLint length = 0;
    glGetShaderiv(_shaderID, GL_INFO_LOG_LENGTH, &length);
    _log.clear();
    if (length > 0) {
        QByteArray log(length, '\0');
        GLsizei written = 0;
        glGetShaderInfoLog(_shaderID, length, &written, log.data());
        _log = QString::fromLocal8Bit(log.constData(), qBound(0, int(written), int(length)));
    }

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

// ---------------------------------------------------------------------------------------------
// ShaderProgram: set-up

ShaderProgram::ShaderProgram(QObject* parent)
    : QObject(parent)
{
    registerUniformMetaTypes();
    resolveProgramBinaryEntryPoints();
    _parallelCompile =
        hasGLExtension("GL_ARB_parallel_shader_compile") || hasGLExtension("GL_KHR_parallel_shader_compile");
}

ShaderProgram::~ShaderProgram()
{
    currentPrograms().withCurrent([this](CurrentProgramRecord& record) {
        if (record.program == this)
            record.program = nullptr;
    });
    qDeleteAll(_shaders);
    _shaders.clear();
    if (_programID != kShaderProgramNotLinked)
        glDeleteProgram(_programID);
}

bool ShaderProgram::isProgramBinariesSupported()
{
    return s_getProgramBinary && s_programBinary && s_programParameteri;
}

void ShaderProgram::addShader(int type, const QString& source, const QString& dumpFileName)
{
    _preprocessed = false;
    Shader* shader = new Shader(unsigned(type), source, _macroProcessor);
    _shaders.insert(type, shader);
    if (!dumpFileName.isEmpty())
        shader->dumpSourceCode(dumpFileName);
}

void ShaderProgram::addShaderFromFile(int type, const QString& fileName)
{
    const QStringList searchPath = {QDir::currentPath(), resourcesPath() + QStringLiteral("/GLSL/src"),
                                    QStringLiteral(":/GLSL/src")};
    for (const QString& folder : searchPath) {
        const QDir dir(folder);
        if (!dir.exists())
            continue;
        QFile file(dir.filePath(fileName));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        addShader(type, QString::fromLocal8Bit(file.readAll()), QString());
        return;
    }
    qWarning("Couldn't find shader source file '%s'", qPrintable(fileName));
}

void ShaderProgram::setTransformFeedbackVaryings(const QStringList& varyings, unsigned bufferMode)
{
    _transformFeedbackVaryings = varyings;
    _transformFeedbackBufferMode = bufferMode;
}

void ShaderProgram::clear()
{
    if (_programID != kShaderProgramNotLinked)
        glDeleteProgram(_programID);
    _programID = kShaderProgramNotLinked;
    _preprocessed = false;
    qDeleteAll(_shaders);
    _shaders.clear();
    // A relinked program may place its uniforms elsewhere.
    _uniformLocations.clear();
}

void ShaderProgram::clearSource()
{
    for (Shader* shader : qAsConst(_shaders))
        shader->clearSource();
}

// ---------------------------------------------------------------------------------------------
// Compiling and linking

bool ShaderProgram::compile()
{
    _programID = kShaderProgramNotLinked;
    _preprocessed = true;
    for (Shader* shader : qAsConst(_shaders))
        shader->startCompile();
    for (Shader* shader : qAsConst(_shaders)) {
        if (!shader->compile()) {
            _log = shader->log();
            return false;
        }
    }
    return true;
}

bool ShaderProgram::linkPre()
{
    if (_programID != kShaderProgramNotLinked)
        return true;
    _programID = glCreateProgram();

    for (Shader* shader : qAsConst(_shaders))
        shader->startCompile();
    for (Shader* shader : qAsConst(_shaders)) {
        if (!shader->isCompiled() && !shader->compile()) {
            _log = shader->log();
            glDeleteProgram(_programID);
            _programID = kShaderProgramNotLinked;
            return false;
        }
        glAttachShader(_programID, shader->shaderID());
    }

    PFNVYXGLBINDFRAGDATALOCATIONINDEXEDPROC bindIndexed = nullptr;
    if (!_fragDataIndexes.isEmpty())
        bindIndexed = reinterpret_cast<PFNVYXGLBINDFRAGDATALOCATIONINDEXEDPROC>(
            getGLProcAddress("glBindFragDataLocationIndexed", true));
    for (int i = 0; i < _fragDataLocations.size(); ++i) {
        if (i == 0 && i < _fragDataIndexes.size()) {
            if (bindIndexed) {
                const QStringList& names = _fragDataIndexes.at(0);
                for (int j = 0; j < names.size(); ++j)
                    bindIndexed(_programID, 0, GLuint(j), names.at(j).toLatin1().constData());
                continue;
            }
            qDebug("Trying to setup glBindFragDataLocationIndexed( %d, %d, , ). Func pointer is NULL, falling back "
                   "to glBindFragDataLocation()\n",
                   int(_programID), 0);
        }
        glBindFragDataLocation(_programID, GLuint(i), _fragDataLocations.at(i).toLatin1().constData());
    }

    if (!_transformFeedbackVaryings.isEmpty() && _ptrc_glTransformFeedbackVaryings) {
        QList<QByteArray> names;
        QVector<const GLchar*> pointers;
        for (const QString& varying : qAsConst(_transformFeedbackVaryings))
            names.append(varying.toLocal8Bit());
        for (const QByteArray& name : qAsConst(names))
            pointers.append(name.constData());
        glTransformFeedbackVaryings(_programID, GLsizei(pointers.size()), pointers.data(),
                                    _transformFeedbackBufferMode);
    }

    // The hint belongs before the link; later it may be ignored.
    if (isProgramBinariesSupported())
        s_programParameteri(_programID, GL_PROGRAM_BINARY_RETRIEVABLE_HINT, GL_TRUE);
    glLinkProgram(_programID);
    return true;
}

bool ShaderProgram::linkPreWait()
{
    if (!_parallelCompile || _programID == kShaderProgramNotLinked)
        return true;
    QElapsedTimer sinceStart;
    QElapsedTimer sinceReport;
    sinceStart.start();
    sinceReport.start();
    for (;;) {
        GLint status = 0;
        glGetProgramiv(_programID, GL_COMPLETION_STATUS_ARB, &status);
        if (status == 1)
            return true;
        QThread::yieldCurrentThread();
        if (sinceReport.elapsed() > 1000) {
            qDebug("%p Sleep 0x%02X", static_cast<void*>(this), unsigned(status));
            sinceReport.restart();
        }
        if (sinceStart.elapsed() > 5000) {
            // linkPost judges the link status; waiting longer would only stall the caller.
            qDebug("%p TIMEOUT 0x%02X", static_cast<void*>(this), unsigned(status));
            return true;
        }
    }
}

bool ShaderProgram::linkPost()
{
    if (_programID == kShaderProgramNotLinked)
        return false;
    GLint status = GL_FALSE;
    glGetProgramiv(_programID, GL_LINK_STATUS, &status);
    if (status == GL_TRUE) {
        fillLinkCaches();
        return true;
    }
    printLinkFailure();
    glDeleteProgram(_programID);
    _programID = kShaderProgramNotLinked;
    return false;
}

bool ShaderProgram::link()
{
    return linkPre() && linkPost();
}

void ShaderProgram::fillLinkCaches()
{
    cacheVertexAttributes();
    cacheUniformLocations();
    cacheUniformBlockIndices();
    clearSource();
}

void ShaderProgram::printLinkFailure()
{
    _log = programInfoLog(_programID);
    QString message = QStringLiteral("Failed to link GL shader\n");
    message += QStringLiteral(" =======Log=========\n");
    message += _log;

    GLint attachedCount = 0;
    glGetProgramiv(_programID, GL_ATTACHED_SHADERS, &attachedCount);
    QVector<GLuint> attached(qMax(0, int(attachedCount)));
    GLsizei returned = 0;
    if (!attached.isEmpty())
        glGetAttachedShaders(_programID, GLsizei(attached.size()), &returned, attached.data());
    for (int i = 0; i < qMin(int(returned), attached.size()); ++i) {
        GLint type = 0;
        GLint length = 0;
        glGetShaderiv(attached[i], GL_SHADER_TYPE, &type);
        glGetShaderiv(attached[i], GL_SHADER_SOURCE_LENGTH, &length);
        QByteArray source(qMax(0, int(length)), '\0');
        GLsizei written = 0;
        if (length > 0)
            glGetShaderSource(attached[i], length, &written, source.data());
        message += QStringLiteral("########### 0x%1\n").arg(unsigned(type), 0, 16);
        appendNumberedSource(message, QString::fromLocal8Bit(source.constData(), qBound(0, int(written), int(length))));
    }
    printLines(message);
}

bool ShaderProgram::validate()
{
    if (_programID == kShaderProgramNotLinked)
        return false;
    GLint status = GL_FALSE;
    glGetProgramiv(_programID, GL_LINK_STATUS, &status);
    if (status == GL_TRUE)
        return true;
    _log = programInfoLog(_programID);
    printLines(QStringLiteral("Failed to validate GL shader") + QStringLiteral("========= Log =========\n") + _log);
    return false;
}

// ---------------------------------------------------------------------------------------------
// Binary cache

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
    if (data.size() <= 4) {
        qDebug("Shader cache entry %s is too short; compiling instead", qPrintable(key));
        return false;
    }

    const uchar* tail = reinterpret_cast<const uchar*>(data.constData()) + data.size() - 4;
    const GLenum format = (GLenum(tail[0]) << 24) | (GLenum(tail[1]) << 16) | (GLenum(tail[2]) << 8) | GLenum(tail[3]);
    const GLuint program = glCreateProgram();
    s_programBinary(program, format, data.constData(), GLsizei(data.size() - 4));
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
    if (!isProgramBinariesSupported() || _programID == kShaderProgramNotLinked)
        return false;
    s_programParameteri(_programID, GL_PROGRAM_BINARY_RETRIEVABLE_HINT, GL_TRUE);
    GLint length = 0;
    glGetProgramiv(_programID, GL_PROGRAM_BINARY_LENGTH, &length);
    if (length <= 0)
        return false;

    QByteArray data(length, '\0');
    GLsizei written = 0;
    GLenum format = 0;
    s_getProgramBinary(_programID, length, &written, &format, data.data());
    if (written <= 0 || written > length)
        return false;
    data.truncate(written);
    data.append(char((format >> 24) & 0xFF));
    data.append(char((format >> 16) & 0xFF));
    data.append(char((format >> 8) & 0xFF));
    data.append(char(format & 0xFF));
    return ShaderCacheManager::Instance().writeCacheFile(key, data);
}

// ---------------------------------------------------------------------------------------------
// Binding

bool ShaderProgram::bind()
{
    if (_programID == kShaderProgramNotLinked) {
        VYX_WARNING("Shader program is not linked");
        return false;
    }
    glUseProgram(_programID);
    currentPrograms().withCurrent([this](CurrentProgramRecord& record) { record.program = this; });
    return true;
}

bool ShaderProgram::unbind()
{
    glUseProgram(0);
    currentPrograms().withCurrent([](CurrentProgramRecord& record) { record.program = nullptr; });
    return true;
}

ShaderProgram* ShaderProgram::currentShaderProgram()
{
    return currentPrograms().withCurrent([](CurrentProgramRecord& record) { return record.program; });
}

// ---------------------------------------------------------------------------------------------
// Link-time caches

void ShaderProgram::cacheVertexAttributes()
{
    _vertexAttributes.clear();
    if (_programID == kShaderProgramNotLinked)
        return;
    GLint count = 0;
    glGetProgramiv(_programID, GL_ACTIVE_ATTRIBUTES, &count);
    for (GLint index = 0; index < count; ++index) {
        char name[200] = {};
        GLsizei length = 0;
        GLint size = 0;
        GLenum type = 0;
        glGetActiveAttrib(_programID, GLuint(index), sizeof(name), &length, &size, &type, name);
        name[sizeof(name) - 1] = '\0';
        const GLint location = glGetAttribLocation(_programID, name);
        if (std::strlen(name) < 3 || std::strncmp(name, "gl_", 3) != 0) {
            if (location >= 0)
                _vertexAttributes.insert(QString::fromLatin1(name), location);
            continue;
        }
        const bool allowedBuiltIn = std::strncmp(name, "gl_BaseInstanceARB", 14) == 0 ||
                                    std::strcmp(name, "gl_InstanceID") == 0 ||
                                    std::strcmp(name, "gl_VertexID") == 0;
        if (!allowedBuiltIn)
            VYX_CHECK(false, "[ !! ] Shader Contains GL attribute '%s'. This is illigal", name);
    }
}

void ShaderProgram::cacheUniformLocations()
{
    _drawIDUniformLocation = getUniformLocation(QStringLiteral("u_DrawID"));
}

void ShaderProgram::cacheUniformBlockIndices()
{
    _uniformBlockIndices.clear();
    _uniformBlockBindingIndices.clear();
    if (_programID == kShaderProgramNotLinked)
        return;
    GLint count = 0;
    glGetProgramiv(_programID, GL_ACTIVE_UNIFORM_BLOCKS, &count);
    for (GLint index = 0; index < count; ++index) {
        char name[1024] = {};
        GLsizei length = 0;
        glGetActiveUniformBlockName(_programID, GLuint(index), sizeof(name), &length, name);
        name[sizeof(name) - 1] = '\0';
        const GLuint blockIndex = glGetUniformBlockIndex(_programID, name);
        _uniformBlockIndices.insert(QString::fromLatin1(name), blockIndex);
        _uniformBlockBindingIndices.insert(blockIndex, 0xFFFFFFFFu);
    }
}

// ---------------------------------------------------------------------------------------------
// Lookups

int ShaderProgram::getVertexAttributeLocation(const QString& name) const
{
    return _vertexAttributes.value(name, -1);
}

int ShaderProgram::getUniformLocation(const QString& name) const
{
    auto it = _uniformLocations.constFind(name);
    if (it != _uniformLocations.constEnd())
        return it.value();
    if (_programID == kShaderProgramNotLinked)
        return -1;
    const GLint location = glGetUniformLocation(_programID, name.toLocal8Bit().constData());
    _uniformLocations.insert(name, location);
    return location;
}

int ShaderProgram::getUniformBlockIndex(const QString& name) const
{
    return int(_uniformBlockIndices.value(name, GL_INVALID_INDEX));
}

void ShaderProgram::setUniformBlockBinding(unsigned blockIndex, unsigned binding)
{
    auto itFind = this->_uniformBlockBindingIndices.find(blockIndex);
    if (!VYX_CHECK(itFind != this->_uniformBlockBindingIndices.end(),
                   "Trying to set uniformBlockIndex %u on shader %u. Does not exist.", blockIndex, _programID))
        return;
    if (itFind.value() == binding)
        return;
    glUniformBlockBinding(_programID, blockIndex, binding);
    itFind.value() = binding;
}

unsigned ShaderProgram::getUniformBlockBinding(unsigned blockIndex)
{
    auto itFind = this->_uniformBlockBindingIndices.find(blockIndex);
    if (!VYX_CHECK(itFind != this->_uniformBlockBindingIndices.end(),
                   "Trying to get uniformBlockIndex %u on shader %u. Does not exist.", blockIndex, _programID))
        return GL_INVALID_INDEX;
    return itFind.value();
}

// ---------------------------------------------------------------------------------------------
// Uniforms

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

// ---------------------------------------------------------------------------------------------
// Diagnostics

void ShaderProgram::dumpShaderSources(const QString& pattern) const
{
    QHash<int, int> dumpedPerStage;
    for (const Shader* shader : _shaders) {
        const QString label = stageLabel(shader->shaderType());
        const int n = label.isEmpty() ? 0 : dumpedPerStage.value(shader->shaderType(), 0);
        if (!label.isEmpty())
            dumpedPerStage[shader->shaderType()] = n + 1;
        shader->dumpSourceCode(pattern.arg(label).arg(n));
    }
}

} // namespace Tavren::Vyx
