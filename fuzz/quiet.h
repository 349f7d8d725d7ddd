#pragma once

#include <QtGlobal>

// The decoders report every bad input; printing millions of lines would only slow fuzzing down.
inline void silenceMessages()
{
    static const bool once = [] {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        return true;
    }();
    (void)once;
}
