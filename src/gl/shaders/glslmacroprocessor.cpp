#include "gl/shaders/glslmacroprocessor.h"

#include "core/logging.h"
#include "core/resourcespath.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <optional>

namespace Tavren::Vyx {

namespace {

// Deeper than any sane include tree; stops runaway expansion that the cycle check cannot see.
constexpr int kMaxExpansionDepth = 64;

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
    const qint64 limit;
    // Includes, macros and plans being expanded right now, outermost first.
    QStringList active;
    // Characters produced so far, counted at every nesting level.
    qint64 produced = 0;
    bool exhausted = false;

    explicit Expansion(qint64 limit)
        : limit(limit)
    {
    }

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
        if (produced > limit) {
            if (!exhausted)
                VYX_WARNING("GLSL expansion exceeds %lld characters at '%s'; further directives are left as they are",
                            limit, qPrintable(key));
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

void GLSLMacroProcessor::setExpansionLimit(qint64 characters)
{
    _expansionLimit = characters;
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

// False for a line no directive can apply to.
bool mayHoldDirective(QStringView line)
{
    return line.contains(QLatin1String("#macro")) || line.startsWith(QLatin1String("#include")) ||
           line.startsWith(QLatin1String("#instancedata"));
}

bool isAsciiSpace(QChar c)
{
    return c == QLatin1Char(' ') || (c >= QLatin1Char('\t') && c <= QLatin1Char('\r'));
}

enum class MacroLine { Other, Macro, NeedsPattern };

// The macro pattern's verdict on an ASCII line, reached without running it: a match costs several
// allocations, and nested macros are made of little else. Other lines are left to the pattern and
// its Unicode idea of white space.
MacroLine parseMacroLine(QStringView line, QStringView* name, QStringView* text)
{
    for (QChar c : line)
        if (c.unicode() >= 0x80)
            return MacroLine::NeedsPattern;
    const qsizetype size = line.size();
    qsizetype at = 0;
    while (at < size && isAsciiSpace(line[at]))
        ++at;
    if (!line.mid(at).startsWith(QLatin1String("#macro")))
        return MacroLine::Other;
    const qsizetype keywordEnd = at + 6;
    qsizetype nameStart = keywordEnd;
    while (nameStart < size && isAsciiSpace(line[nameStart]))
        ++nameStart;
    qsizetype nameEnd = nameStart;
    while (nameEnd < size && !isAsciiSpace(line[nameEnd]))
        ++nameEnd;
    if (nameEnd < size) {
        *name = line.mid(nameStart, nameEnd - nameStart);
        *text = line.mid(nameEnd + 1);
        return MacroLine::Macro;
    }
    // No space after the name: the pattern backs off to an empty name, separated by the last
    // space after the keyword, if there is one.
    if (nameStart == keywordEnd)
        return MacroLine::Other;
    *name = line.mid(nameStart, 0);
    *text = line.mid(nameStart);
    return MacroLine::Macro;
}

} // namespace

QString GLSLMacroProcessor::process(const QString& source, GLSLMacroProcessor* mp)
{
    if (!needsProcessing(source, mp))
        return source;

    if (mp) {
        Expansion expansion(mp->_expansionLimit);
        return processSource(source, mp, expansion);
    }
    // Made only when needed: finding the default include folder reads the program's path.
    GLSLMacroProcessor defaults;
    Expansion expansion(defaults._expansionLimit);
    return processSource(source, &defaults, expansion);
}

QString GLSLMacroProcessor::processSource(const QString& source, GLSLMacroProcessor* mp, Expansion& expansion)
{
    // Nested expansions take the same fast path as the top level, so unchanged text stays byte for byte.
    if (!needsProcessing(source, mp))
        return source;
    bool injectDefines = !mp->_defines.isEmpty();
    QString result;
    result.reserve(source.size());
    // Lines are views of the source: a string for every line cost more than the expansion itself
    // in nested macros.
    const QStringView text(source);
    for (qsizetype start = 0;;) {
        const qsizetype end = source.indexOf(QLatin1Char('\n'), start);
        QStringView line = text.mid(start, (end < 0 ? text.size() : end) - start);
        QString expanded;
        if (mayHoldDirective(line)) {
            // The source outlives the line, which the steps only read or replace: no copy needed.
            expanded = QString::fromRawData(line.data(), line.size());
            processLineMacro(expanded, expansion.macroPattern, mp, expansion);
            processLineInclude(expanded, expansion.includePattern, mp, expansion);
            processLineMaterial(expanded, expansion.instanceDataPattern, mp, expansion);
            line = expanded;
        }
        result += line;
        result += QLatin1Char('\n');
        expansion.produced += line.size() + 1;
        if (injectDefines && line.startsWith(QLatin1String("#version"))) {
            result += processDefines(mp);
            injectDefines = false;
        }
        if (end < 0)
            return result;
        start = end + 1;
    }
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
    QStringView name, defaultText;
    const MacroLine kind = parseMacroLine(line, &name, &defaultText);
    if (kind == MacroLine::Other)
        return;
    // Made only when the pattern runs: even an empty match allocates.
    std::optional<QRegularExpressionMatch> match;
    if (kind == MacroLine::NeedsPattern) {
        match = pattern.match(line);
        if (!match->hasMatch())
            return;
        name = match->capturedView(1);
        defaultText = match->capturedView(2);
    }
    // Looked up without a copy of the name.
    auto it = mp->_macros.constFind(QString::fromRawData(name.data(), name.size()));
    if (it == mp->_macros.constEnd()) {
        line = defaultText.toString();
        return;
    }
    QString key = QStringLiteral("#macro ");
    key += name;
    if (!expansion.enter(key, QStringLiteral("macro")))
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
        // Devices and pipes never end; only plain files are read. The file is read whole at once,
        // so a read buffer would only be one more copy.
        if (!QFileInfo(candidate).isFile() || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
            continue;
        if (file.size() > expansion.limit) {
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
