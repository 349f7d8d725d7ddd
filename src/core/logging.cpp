#include "core/logging.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <cstdarg>
#include <cstring>

namespace Tavren::Vyx {

namespace {

void emit(LogLevel level, const char* file, int line, const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    switch (level) {
    case LogLevel::Debug:
        qDebug("[%s:%d] %s", sourceBaseName(file), line, utf8.constData());
        break;
    case LogLevel::Warning:
        qWarning("[%s:%d] %s", sourceBaseName(file), line, utf8.constData());
        break;
    case LogLevel::Critical:
        qCritical("[%s:%d] %s", sourceBaseName(file), line, utf8.constData());
        break;
    }
}

} // namespace

const char* sourceBaseName(const char* file)
{
    if (!file)
        return "";
    const char* slash = std::strrchr(file, '/');
    return slash ? slash + 1 : file;
}

void logMessage(LogLevel level, const char* file, int line, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const QString text = QString::vasprintf(format, args);
    va_end(args);
    emit(level, file, line, text);
}

bool checkAssertion(bool condition, const char* conditionText, const char* file, int line, const char* format, ...)
{
    if (condition)
        return true;
    va_list args;
    va_start(args, format);
    const QString message = QString::vasprintf(format, args);
    va_end(args);
    // The condition text is shown as written, with every '%' escaped as "\%".
    QString escapedCondition = QString::fromUtf8(conditionText);
    escapedCondition.replace(QLatin1String("%"), QLatin1String("\\%"));
    emit(LogLevel::Critical, file, line,
         QStringLiteral("[ !! ] Assertion '%1' failed: %2").arg(escapedCondition, message));
    return false;
}

QByteArray printableName(const QString& name)
{
    return name.isEmpty() ? QByteArray("<unnamed>") : name.toLocal8Bit();
}

} // namespace Tavren::Vyx
