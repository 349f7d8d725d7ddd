#include "gl/shaders/shaderprogram.h"

#include "core/logging.h"
#include "core/resourcespath.h"

#include <atomic>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <cstring>

#include "gl/glloader.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/platform/internal/percontextrecords.h"
#include "gl/shaders/internal/shaderprogramparts.h"

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

} // namespace

// ---------------------------------------------------------------------------------------------
// Set-up

ShaderProgram::ShaderProgram(QObject* parent)
    : QObject(parent)
{
    registerUniformMetaTypes();
    lookUpProgramBinaryEntryPoints();
    _parallelCompile = hasGLCapability(GLCapability::ParallelShaderCompileARB)
                       || hasGLCapability(GLCapability::ParallelShaderCompileKHR);
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
        bindIndexed = glCapabilityFunction<PFNVYXGLBINDFRAGDATALOCATIONINDEXEDPROC>(
            GLCapability::BindFragDataLocationIndexed);
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

    if (!_transformFeedbackVaryings.isEmpty() && hasGLCapability(GLCapability::TransformFeedbackVaryings)) {
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
    hintBinaryRetrievable(_programID);
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
    static std::atomic<quint64> links{0};
    _linkSerial = ++links;
    cacheVertexAttributes();
    cacheUniformLocations();
    cacheUniformBlockIndices();
    clearSource();
}

void ShaderProgram::printLinkFailure()
{
    _log = readInfoLog(_programID, glGetProgramiv, glGetProgramInfoLog);
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
    _log = readInfoLog(_programID, glGetProgramiv, glGetProgramInfoLog);
    printLines(QStringLiteral("Failed to validate GL shader") + QStringLiteral("========= Log =========\n") + _log);
    return false;
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
            VYX_CHECK_CONTINUE(false, "[ !! ] Shader Contains GL attribute '%s'. This is illigal", name);
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
    VYX_CHECK_RETURN(itFind != this->_uniformBlockBindingIndices.end(), ,
                     "Trying to set uniformBlockIndex %u on shader %u. Does not exist.", blockIndex, _programID);
    if (itFind.value() == binding)
        return;
    glUniformBlockBinding(_programID, blockIndex, binding);
    itFind.value() = binding;
}

unsigned ShaderProgram::getUniformBlockBinding(unsigned blockIndex)
{
    auto itFind = this->_uniformBlockBindingIndices.find(blockIndex);
    VYX_CHECK_RETURN(itFind != this->_uniformBlockBindingIndices.end(), GL_INVALID_INDEX,
                     "Trying to get uniformBlockIndex %u on shader %u. Does not exist.", blockIndex, _programID);
    return itFind.value();
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
