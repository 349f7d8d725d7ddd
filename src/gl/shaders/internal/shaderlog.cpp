#include "gl/shaders/internal/shaderprogramparts.h"

#include <QByteArray>
#include <QStringList>

namespace Tavren::Vyx {

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

QString readInfoLog(GLuint object, PFNVYXGLGETSHADERIVPROC getParameter, PFNVYXGLGETSHADERINFOLOGPROC getLog)
{
    GLint length = 0;
    getParameter(object, GL_INFO_LOG_LENGTH, &length);
    if (length <= 0)
        return QString();
    QByteArray log(length, '\0');
    GLsizei written = 0;
    getLog(object, length, &written, log.data());
    return QString::fromLocal8Bit(log.constData(), qBound(0, int(written), int(length)));
}

} // namespace Tavren::Vyx
