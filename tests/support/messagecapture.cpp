#include "support/messagecapture.h"

#include <QRegularExpression>

namespace VyxTest {

namespace {

std::vector<CapturedMessage> capturedMessages;

void captureHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    capturedMessages.push_back({type, text});
}

} // namespace

MessageCapture::MessageCapture()
{
    capturedMessages.clear();
    _previous = qInstallMessageHandler(captureHandler);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(_previous);
}

const std::vector<CapturedMessage>& MessageCapture::messages() const
{
    return capturedMessages;
}

QStringList MessageCapture::texts() const
{
    QStringList result;
    for (const CapturedMessage& message : capturedMessages)
        result << message.text;
    return result;
}

QStringList MessageCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const CapturedMessage& message : capturedMessages)
        if (message.type == type)
            result << message.text;
    return result;
}

QStringList MessageCapture::bodies(QtMsgType type) const
{
    QStringList result;
    for (const QString& text : texts(type))
        result << withoutLocation(text);
    return result;
}

void MessageCapture::clear()
{
    capturedMessages.clear();
}

QString assertionText(const char* condition, const QString& message)
{
    return QStringLiteral("[ !! ] Assertion '%1' failed: %2").arg(QString::fromUtf8(condition), message);
}

QString withoutLocation(const QString& line)
{
    static const QRegularExpression location(QStringLiteral("^\\[[^\\]:]+:\\d+\\] "));
    return QString(line).remove(location);
}

} // namespace VyxTest
