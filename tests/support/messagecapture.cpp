#include "support/messagecapture.h"

#include <QRegularExpression>

namespace VyxTest {

namespace {

std::vector<CapturedMessage>& capturedMessages()
{
    static std::vector<CapturedMessage> messages;
    return messages;
}

void captureHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    capturedMessages().push_back({type, text});
}

} // namespace

MessageCapture::MessageCapture()
{
    capturedMessages().clear();
    _previous = qInstallMessageHandler(captureHandler);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(_previous);
}

const std::vector<CapturedMessage>& MessageCapture::messages() const
{
    return capturedMessages();
}

QStringList MessageCapture::texts() const
{
    QStringList result;
    for (const CapturedMessage& message : capturedMessages())
        result << message.text;
    return result;
}

QStringList MessageCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const CapturedMessage& message : capturedMessages()) {
        if (message.type == type)
            result << message.text;
    }
    return result;
}

QStringList MessageCapture::bodies(QtMsgType type) const
{
    QStringList result;
    for (const QString& text : texts(type))
        result << withoutLocation(text);
    return result;
}

bool MessageCapture::contains(QtMsgType type, const QString& text) const
{
    return texts(type).contains(text);
}

void MessageCapture::clear()
{
    capturedMessages().clear();
}

QString assertionText(const char* condition, const QString& message)
{
    return QStringLiteral("[ !! ] Assertion '%1' failed: %2").arg(QString::fromUtf8(condition), message);
}

QString withoutLocation(const QString& line)
{
    static const QRegularExpression location(QStringLiteral("^\\[[^\\]:]+:\\d+\\] "));
    QString body = line;
    body.remove(location);
    return body;
}

} // namespace VyxTest
