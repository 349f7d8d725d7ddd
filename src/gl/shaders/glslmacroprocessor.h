#pragma once

#include "core/vyxexport.h"

#include <QDir>
#include <QList>
#include <QMap>
#include <QRegularExpression>
#include <QString>

#include <functional>

namespace Tavren::Vyx {

// Line-based preprocessor run over every shader source before it reaches the GL compiler.
// It resolves the library's own directives and injects the host's defines after "#version":
//   #include "File.glslh"        replaced by the file, searched along the include paths
//   #macro NAME default text      replaced by the macro NAME, else by the default text
//   #instancedata "PlanName"      replaced by the instance-data plan's GLSL declarations
class VYXGL_EXPORT GLSLMacroProcessor
{
public:
    // Answers the GLSL declarations of an instance-data plan; false when no plan has that name.
    using InstanceDataResolver = std::function<bool(const QString& planName, QString* glslh)>;

    // Include paths: resourcesPath() + "/GLSL/include", then the embedded ":/GLSL/include".
    GLSLMacroProcessor();

    void addMacro(const QString& name, const QString& text);
    void removeMacro(const QString& name);
    void addDefine(const QString& name, const QString& value);
    void removeDefine(const QString& name);
    // Searched after the default paths.
    void addIncludePath(const QString& path);
    // Characters one process() call may produce, counted at every nesting level: past them further
    // directives are left as they are (with one warning), and include files larger are refused.
    // The default is far beyond any real shader; it stops macros and includes that each expand to
    // several copies of the next from doubling their way to an endless output.
    static constexpr qint64 kDefaultExpansionLimit = qint64(4) << 20;
    void setExpansionLimit(qint64 characters);
    qint64 expansionLimit() const { return _expansionLimit; }

    const QMap<QString, QString>& macros() const { return _macros; }
    const QMap<QString, QString>& defines() const { return _defines; }
    const QList<QDir>& includePaths() const { return _includePaths; }

    // mp may be null: then only the default include paths are used.
    static QString process(const QString& source, GLSLMacroProcessor* mp);

    // The instance-data registry installs its lookup here; until then every plan is unknown.
    static void setInstanceDataResolver(const InstanceDataResolver& resolver);

private:
    struct Expansion;

    static QString processSource(const QString& source, GLSLMacroProcessor* mp, Expansion& expansion);
    static QString processDefines(GLSLMacroProcessor* mp);
    static void processLineMacro(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp, Expansion& expansion);
    static void processLineInclude(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp, Expansion& expansion);
    static void processLineMaterial(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp, Expansion& expansion);

    QMap<QString, QString> _macros;
    QMap<QString, QString> _defines;
    QList<QDir> _includePaths;
    qint64 _expansionLimit = kDefaultExpansionLimit;
};

} // namespace Tavren::Vyx
