#include "messages.h"

#include <QByteArray>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool showNotes = false;

void toolMessageHandler(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    const bool note = type == QtDebugMsg || type == QtInfoMsg;
    if (note && !showNotes)
        return;
    static QMutex mutex;
    static QSet<QString> printed;
    {
        QMutexLocker lock(&mutex);
        if (!note && printed.contains(message))
            return;
        printed.insert(message);
    }
    const char* kind = note ? "note" : type == QtWarningMsg ? "warning" : "error";
    std::fprintf(stderr, "vyxgl: %s: %s\n", kind, message.toLocal8Bit().constData());
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

void installToolMessageHandler(bool verbose)
{
    showNotes = verbose;
    qInstallMessageHandler(toolMessageHandler);
}

bool takeVerboseFlag(int& argc, char** argv)
{
    bool found = false;
    int kept = 0;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && (std::strcmp(argv[i], "--verbose") == 0 || std::strcmp(argv[i], "-v") == 0))
            found = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    argv[argc] = nullptr;
    return found;
}
