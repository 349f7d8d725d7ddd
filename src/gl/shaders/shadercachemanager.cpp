#include "gl/shaders/shadercachemanager.h"

#include <QFile>
#include <QFileInfo>
#include <QtGlobal>

namespace Tavren::Vyx {

ShaderCacheManager::ShaderCacheManager() = default;

ShaderCacheManager& ShaderCacheManager::Instance()
{
    static ShaderCacheManager instance;
    return instance;
}

bool ShaderCacheManager::isReadOnlyMode()
{
    return qgetenv("TARN_READ_ONLY") == "1";
}

void ShaderCacheManager::setCacheParentDirectory(const QDir& parent)
{
    _valid = false;
    _cacheDirectory = QDir(parent.absoluteFilePath(QStringLiteral("ShaderCache_NOT_FOR_PERSONAL_FILES")));
    const QString path = _cacheDirectory.absolutePath();
    qDebug("Cache directory set: %s", qPrintable(path));

    if (_cacheDirectory.exists()) {
        _valid = true;
        return;
    }
    if (isReadOnlyMode()) {
        qDebug("Can't create directory %s, because Tarn is in read-only mode.", qPrintable(path));
        return;
    }
    if (_cacheDirectory.mkdir(path))
        _valid = true;
    else
        qDebug("Failed to make cache directory: %s", qPrintable(path));
}

bool ShaderCacheManager::hasUsableFolder() const
{
    if (_valid && _cacheDirectory.exists())
        return true;
    qDebug("A valid shader cache location has not been set.");
    return false;
}

bool ShaderCacheManager::loadCacheFile(const QString& key, QByteArray& data)
{
    if (!hasUsableFolder())
        return false;
    const QString path = _cacheDirectory.absoluteFilePath(key);
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return false;
    qDebug("Load shader cache at %s", qPrintable(path));
    data = file.readAll();
    file.close();
    _managedFiles.append(path);
    return true;
}

bool ShaderCacheManager::writeCacheFile(const QString& key, const QByteArray& data)
{
    if (isReadOnlyMode()) {
        qDebug("Tarn is in read-only mode, so it will not attempt to write cache files.");
        return false;
    }
    if (!hasUsableFolder())
        return false;
    const QString path = _cacheDirectory.absoluteFilePath(key);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    qDebug("Write shader cache at %s", qPrintable(path));
    const bool written = file.write(data) == data.size();
    file.close();
    _managedFiles.append(path);
    return written;
}

void ShaderCacheManager::clearManagedFilesList()
{
    _managedFiles.clear();
}

void ShaderCacheManager::deleteUnmanagedCacheFiles()
{
    if (!_valid || !_cacheDirectory.exists())
        return;
    const QFileInfoList files = _cacheDirectory.entryInfoList(QDir::Files | QDir::Hidden, QDir::Unsorted);
    for (const QFileInfo& info : files) {
        const QString path = info.absoluteFilePath();
        if (_managedFiles.contains(path))
            continue;
        qDebug("Removing cold cache at %s", qPrintable(path));
        QFile::remove(path);
    }
}

} // namespace Tavren::Vyx
