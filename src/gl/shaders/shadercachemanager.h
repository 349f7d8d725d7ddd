#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QDir>
#include <QString>
#include <QStringList>

namespace Tavren::Vyx {

// Keeps linked program binaries on disk, one file per key, in the folder
// "ShaderCache_NOT_FOR_PERSONAL_FILES" under a parent directory the host chooses.
// The content of a file is opaque here. With TARN_READ_ONLY=1 nothing is created or written.
class VYXGL_EXPORT ShaderCacheManager
{
public:
    ShaderCacheManager();

    static ShaderCacheManager& Instance();

    void setCacheParentDirectory(const QDir& parent);
    bool isValid() const { return _valid; }
    QDir cacheDirectory() const { return _cacheDirectory; }

    bool loadCacheFile(const QString& key, QByteArray& data);
    bool writeCacheFile(const QString& key, const QByteArray& data);

    // The warm set: files loaded or written by this process.
    QStringList managedFiles() const { return _managedFiles; }
    void clearManagedFilesList();
    // Removes every file in the cache folder that this process neither loaded nor wrote.
    void deleteUnmanagedCacheFiles();

    static bool isReadOnlyMode();

private:
    bool hasUsableFolder() const;

    QDir _cacheDirectory;
    bool _valid = false;
    QStringList _managedFiles;
};

} // namespace Tavren::Vyx
