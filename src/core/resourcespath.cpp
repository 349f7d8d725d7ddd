#include "core/resourcespath.h"

#include <QDir>
#include <QFileInfo>

namespace Tavren::Vyx {

namespace {

QString& hostResourcesPath()
{
    static QString path;
    return path;
}

QString runningProgramFolder()
{
    // Works without a QCoreApplication, which a host embedding the library may not have made yet.
    const QFileInfo program(QStringLiteral("/proc/self/exe"));
    const QString target = program.symLinkTarget();
    if (!target.isEmpty())
        return QFileInfo(target).absolutePath();
    return QDir::currentPath();
}

} // namespace

QString resourcesPath()
{
    const QString& path = hostResourcesPath();
    return path.isEmpty() ? runningProgramFolder() : path;
}

void setResourcesPath(const QString& path)
{
    hostResourcesPath() = path;
}

} // namespace Tavren::Vyx
