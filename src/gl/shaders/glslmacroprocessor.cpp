#include "gl/shaders/glslmacroprocessor.h"

#include "core/logging.h"
#include "core/resourcespath.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

namespace Tavren::Vyx {

namespace {

// Deeper than any sane include tree; stops runaway expansion that the cycle check cannot see.
constexpr int kMaxExpansionDepth = 64;
// Far beyond any real shader; stops macros and includes that each expand to several copies of
// the next from doubling their way to an endless output.
constexpr qint64 kMaxExpansionCharacters = qint64(4) << 20;

GLSLMacroProcessor::InstanceDataResolver& instanceDataResolver()
{
    static GLSLMacroProcessor::InstanceDataResolver resolver;
    return resolver;
}

} // namespace

// State of one top-level process() call, shared by its nested expansions.
struct GLSLMacroProcessor::Expansion
{
    // Compiled once per process: compiling them on every call cost more than the expansion.
    // (Matching a shared pattern is thread-safe.)
    struct Patterns
    {
        // Unicode spaces and a dot that matches anything, as the patterns always meant.
        static constexpr auto kOptions =
            QRegularExpression::UseUnicodePropertiesOption | QRegularExpression::DotMatchesEverythingOption;
        const QRegularExpression macro{QStringLiteral("^\\s*#macro\\s*([^\\s]*)\\s(.*)$"), kOptions};
        const QRegularExpression include{QStringLiteral("^#include *\"([^\"]*)\""), kOptions};
        const QRegularExpression instanceData{QStringLiteral("^#instancedata *\"([^\"]*)\""), kOptions};
    };
    static const Patterns& patterns()
    {
        static const Patterns compiled;
        return compiled;
    }
    const QRegularExpression& macroPattern = patterns().macro;
    const QRegularExpression& includePattern = patterns().include;
    const QRegularExpression& instanceDataPattern = patterns().instanceData;
    // Includes, macros and plans being expanded right now, outermost first.
    QStringList active;
    // Characters produced so far, counted at every nesting level.
    qint64 produced = 0;
    bool exhausted = false;

    // False (and a warning) when expanding `key` would recurse.
    bool enter(const QString& key, const QString& what)
    {
        if (active.contains(key)) {
            qWarning("Recursive %s ignored: '%s' is already being expanded", qPrintable(what), qPrintable(key));
            return false;
        }
        if (active.size() >= kMaxExpansionDepth) {
            qWarning("GLSL expansion deeper than %d levels at '%s'; line left as it is", kMaxExpansionDepth,
                     qPrintable(key));
            return false;
        }
        if (produced > kMaxExpansionCharacters) {
            if (!exhausted)
                VYX_WARNING("GLSL expansion exceeds %lld characters at '%s'; further directives are left as they are",
                            kMaxExpansionCharacters, qPrintable(key));
            exhausted = true;
            return false;
        }
        active.append(key);
        return true;
    }
    void leave() { active.removeLast(); }
};

GLSLMacroProcessor::GLSLMacroProcessor()
{
    _includePaths.append(QDir(resourcesPath() + QStringLiteral("/GLSL/include")));
    _includePaths.append(QDir(QStringLiteral(":/GLSL/include")));
}

void GLSLMacroProcessor::addMacro(const QString& name, const QString& text)
{
    _macros[name] = text;
}

void GLSLMacroProcessor::removeMacro(const QString& name)
{
    _macros.remove(name);
}

void GLSLMacroProcessor::addDefine(const QString& name, const QString& value)
{
    _defines[name] = value;
}

void GLSLMacroProcessor::removeDefine(const QString& name)
{
    _defines.remove(name);
}

void GLSLMacroProcessor::addIncludePath(const QString& path)
{
    _includePaths.append(QDir(path));
}

void GLSLMacroProcessor::setInstanceDataResolver(const InstanceDataResolver& resolver)
{
    instanceDataResolver() = resolver;
}

namespace {

bool needsProcessing(const QString& source, const GLSLMacroProcessor* mp)
{
    return source.contains(QLatin1String("#macro")) || source.contains(QLatin1String("#include")) ||
           source.contains(QLatin1String("#instancedata")) || (mp && !mp->defines().isEmpty());
}

} // namespace

QString GLSLMacroProcessor::process(const QString& source, GLSLMacroProcessor* mp)
{
    if (!needsProcessing(source, mp))
        return source;

    GLSLMacroProcessor temporary;
    Expansion expansion;
    return processSource(source, mp ? mp : &temporary, expansion);
}

QString GLSLMacroProcessor::processSource(const QString& source, GLSLMacroProcessor* mp, Expansion& expansion)
{
    // Nested expansions take the same fast path as the top level, so unchanged text stays byte for byte.
    if (!needsProcessing(source, mp))
        return source;
    bool injectDefines = !mp->_defines.isEmpty();
    QString result;
    result.reserve(source.size());
    const QStringList lines = source.split(QLatin1Char('\n'));
    for (QString line : lines) {
        processLineMacro(line, expansion.macroPattern, mp, expansion);
        processLineInclude(line, expansion.includePattern, mp, expansion);
        processLineMaterial(line, expansion.instanceDataPattern, mp, expansion);
        result += line;
        result += QLatin1Char('\n');
        expansion.produced += line.size() + 1;
        if (injectDefines && line.startsWith(QLatin1String("#version"))) {
            result += processDefines(mp);
            injectDefines = false;
        }
    }
    return result;
}

QString GLSLMacroProcessor::processDefines(GLSLMacroProcessor* mp)
{
    QString block;
    for (auto it = mp->_defines.constBegin(); it != mp->_defines.constEnd(); ++it)
        block += QStringLiteral("#define %1 %2\n").arg(it.key(), it.value());
    return block;
}

void GLSLMacroProcessor::processLineMacro(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp,
                                          Expansion& expansion)
{
    const QRegularExpressionMatch match = pattern.match(line);
    if (!match.hasMatch())
        return;
    const QString name = match.captured(1);
    auto it = mp->_macros.constFind(name);
    if (it == mp->_macros.constEnd()) {
        line = match.captured(2);
        return;
    }
    if (!expansion.enter(QStringLiteral("#macro ") + name, QStringLiteral("macro")))
        return;
    const QString text = it.value();
    line = processSource(text, mp, expansion);
    expansion.leave();
}

void GLSLMacroProcessor::processLineInclude(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp,
                                            Expansion& expansion)
{
    if (!line.startsWith(QLatin1String("#include")))
        return;
    const QString name = pattern.match(line).captured(1);
    if (name.isEmpty()) {
        qWarning("Cannot extract include filename from '%s'", qPrintable(line));
        return;
    }
    for (const QDir& dir : qAsConst(mp->_includePaths)) {
        const QString candidate = dir.filePath(name);
        QFile file(candidate);
        // Devices and pipes never end; only plain files are read.
        if (!QFileInfo(candidate).isFile() || !file.open(QIODevice::ReadOnly))
            continue;
        if (file.size() > kMaxExpansionCharacters) {
            VYX_WARNING("Include file '%s' is too large (%lld bytes)", qPrintable(candidate), qint64(file.size()));
            return;
        }
        const QString text = QString::fromLocal8Bit(file.readAll());
        if (!expansion.enter(candidate, QStringLiteral("include")))
            return;
        line = processSource(text, mp, expansion);
        expansion.leave();
        return;
    }
    qWarning("Failed to open include file '%s'", qPrintable(name));
}

void GLSLMacroProcessor::processLineMaterial(QString& line, const QRegularExpression& pattern, GLSLMacroProcessor* mp,
                                             Expansion& expansion)
{
    if (!line.startsWith(QLatin1String("#instancedata")))
        return;
    const QRegularExpressionMatch match = pattern.match(line);
    if (!match.hasMatch() || !instanceDataResolver())
        return;
    const QString planName = match.captured(1);
    QString glslh;
    if (!instanceDataResolver()(planName, &glslh))
        return;
    if (!expansion.enter(QStringLiteral("#instancedata ") + planName, QStringLiteral("instance data")))
        return;
    line = processSource(glslh, mp, expansion);
    expansion.leave();
}

} // namespace Tavren::Vyx
