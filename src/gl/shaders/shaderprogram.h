#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QHash>
#include <QList>
#include <QMultiHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

namespace Tavren::Vyx {

class GLSLMacroProcessor;

// One shader stage: its macro-processed source and the GL shader object compiled from it.
class VYXGL_EXPORT Shader : public QObject
{
    Q_OBJECT

public:
    static constexpr unsigned kShaderNotCompiled = 0;

    // The source runs through GLSLMacroProcessor::process with mp (or with none).
    Shader(unsigned type, const QString& source, QObject* parent = nullptr);
    Shader(unsigned type, const QString& source, GLSLMacroProcessor* mp, QObject* parent = nullptr);
    ~Shader() override;

    // Compiles once; a failure prints the numbered source and the driver's log.
    bool compile();
    bool isCompiled() const { return _shaderID != kShaderNotCompiled && !_compilePending; }
    unsigned shaderID() const { return _shaderID; }
    int shaderType() const { return _shaderType; }
    QString sourceCode() const { return _source; }
    QString log() const { return _log; }
    void clearSource();
    // Writes the processed source to a file; a file that cannot be opened is skipped silently.
    void dumpSourceCode(const QString& fileName) const;

    // "GL_VERTEX_SHADER", "GL_FRAGMENT_SHADER", ... or "unknown".
    static QString shaderTypeName(int type);

private:
    friend class ShaderProgram;
    // Hands the source to the driver without waiting for the result, so several stages
    // can compile side by side where the driver compiles in parallel.
    void startCompile();

    int _shaderType;
    QString _source;
    QString _log;
    unsigned _shaderID = kShaderNotCompiled;
    bool _compilePending = false;
};

// A set of shaders linked into one GL program, with the lookups a draw needs cached at link,
// uniforms set from variants, and a fast path through the on-disk program-binary cache.
class VYXGL_EXPORT ShaderProgram : public QObject, public Bindable
{
    Q_OBJECT

public:
    static constexpr unsigned kShaderProgramNotLinked = 0;

    explicit ShaderProgram(QObject* parent = nullptr);
    ~ShaderProgram() override;

    // Several shaders of one stage may be added; each is compiled as its own unit.
    void addShader(int type, const QString& source, const QString& dumpFileName = QString());
    // Searches the working directory, resourcesPath() + "/GLSL/src", then ":/GLSL/src".
    void addShaderFromFile(int type, const QString& fileName);
    // Not owned; used for shaders added afterwards.
    void setMacroProcessor(GLSLMacroProcessor* mp) { _macroProcessor = mp; }
    GLSLMacroProcessor* getMacroProcessor() const { return _macroProcessor; }

    // Name at position i is bound to colour number i at the next link.
    void setFragDataLocations(const QStringList& names) { _fragDataLocations = names; }
    // List 0 binds colour 0's dual-source outputs: name j gets index j.
    void setFragDataIndexs(const QList<QStringList>& names) { _fragDataIndexes = names; }
    void setTransformFeedbackVaryings(const QStringList& varyings, unsigned bufferMode);

    virtual bool compile();
    // link() = linkPre() + linkPost(). For an asynchronous link call linkPre(), do other work,
    // then linkPreWait() and linkPost().
    virtual bool linkPre();
    virtual bool linkPreWait();
    virtual bool linkPost();
    virtual bool link();
    // Links, trying the binary cache first. True only when the program came from the cache;
    // test isLinked() for success.
    bool cachedLoadLink();
    // Checks the link status (no glValidateProgram).
    virtual bool validate();

    bool isLinked() const { return _programID != kShaderProgramNotLinked; }
    unsigned shaderProgramID() const { return _programID; }
    // Distinct for every successful link of any program in the process (0 before the first):
    // a key for what is looked up per link, which a reused GL name or address cannot give.
    quint64 linkSerial() const { return _linkSerial; }
    QString log() const { return _log; }
    const QMultiHash<int, Shader*>& shaders() const { return _shaders; }
    bool isPreprocessed() const { return _preprocessed; }
    bool usesParallelCompile() const { return _parallelCompile; }

    void clear();
    void clearSource();

    bool bind() override;
    bool unbind() override;
    // The program bound last in the current context, or null.
    static ShaderProgram* currentShaderProgram();

    static bool isProgramBinariesSupported();

    int getVertexAttributeLocation(const QString& name) const;
    const QHash<QString, int>& getVertexAttributeNameLocationMap() const { return _vertexAttributes; }
    QList<QString> getVertexAttributeNames() const { return _vertexAttributes.keys(); }

    int getUniformLocation(const QString& name) const;
    bool hasUniform(const QString& name) const { return getUniformLocation(name) >= 0; }
    // Location of "u_DrawID", found at link.
    int getUniformLocationNameID() const { return _drawIDUniformLocation; }

    int getUniformBlockIndex(const QString& name) const;
    void setUniformBlockBinding(unsigned blockIndex, unsigned binding);
    unsigned getUniformBlockBinding(unsigned blockIndex);

    bool setUniform(int location, int value);
    bool setUniform(int location, unsigned value);
    bool setUniform(int location, const QVector<float>& values);
    bool setUniform(const QString& name, const QVector<float>& values);
    bool setUniform(const QString& name, const QVariant& value);
    // Always true; an unsupported type is reported and sets nothing.
    bool setUniform(int location, const QVariant& value);

    // pattern takes the stage label ("VS", "TCS", "TES", "GS", "FS") as %1 and the index
    // of the shader within its stage as %2.
    void dumpShaderSources(const QString& pattern) const;

protected:
    void preprocess() { _preprocessed = true; }
    void cacheVertexAttributes();
    void cacheUniformLocations();
    void cacheUniformBlockIndices();
    // MD5 over the sorted MD5s of the shader sources: independent of the order of addition.
    QString constructShaderHash() const;
    bool loadLink(const QString& key);
    bool writeBinary(const QString& key);

private:
    void fillLinkCaches();
    void printLinkFailure();

    unsigned _programID = kShaderProgramNotLinked;
    quint64 _linkSerial = 0;
    QString _log;
    QMultiHash<int, Shader*> _shaders;
    QStringList _transformFeedbackVaryings;
    unsigned _transformFeedbackBufferMode = 0;
    QStringList _fragDataLocations;
    QList<QStringList> _fragDataIndexes;
    QHash<QString, int> _vertexAttributes;
    mutable QHash<QString, int> _uniformLocations;
    int _drawIDUniformLocation = -1;
    QHash<QString, unsigned> _uniformBlockIndices;
    QHash<unsigned, unsigned> _uniformBlockBindingIndices;
    GLSLMacroProcessor* _macroProcessor = nullptr;
    bool _parallelCompile = false;
    bool _preprocessed = false;
};

} // namespace Tavren::Vyx
