#pragma once

#include "support/qtprinters.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <vector>

namespace VyxTest {

struct CapturedMessage
{
    QtMsgType type;
    QString text;
};

// Captures every Qt message while alive, instead of printing it.
class MessageCapture
{
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    const std::vector<CapturedMessage>& messages() const;
    QStringList texts() const;
    QStringList texts(QtMsgType type) const;
    // Lines of the given level, each with its leading "[file:line] " taken off.
    QStringList bodies(QtMsgType type) const;
    void clear();

private:
    QtMessageHandler _previous;
};

// The body of the library's assertion line for a condition and its filled-in message.
QString assertionText(const char* condition, const QString& message);

// "[file.cpp:123] text" -> "text"; other lines unchanged.
QString withoutLocation(const QString& line);

} // namespace VyxTest
