#include "gl/shaders/shadercachemanager.h"
#include "support/messagecapture.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

using Tavren::Vyx::ShaderCacheManager;
using VyxTest::MessageCapture;

namespace {

const char* const kFolder = "ShaderCache_NOT_FOR_PERSONAL_FILES";

} // namespace

TEST(ShaderCacheManager, WritesLoadsAndDropsColdFiles)
{
    QTemporaryDir parent;
    ShaderCacheManager cache;
    QByteArray data;
    {
        MessageCapture capture;
        EXPECT_FALSE(cache.loadCacheFile("key", data));
        EXPECT_EQ(capture.texts(QtDebugMsg), QStringList{"A valid shader cache location has not been set."});
    }

    cache.setCacheParentDirectory(QDir(parent.path()));
    ASSERT_TRUE(cache.isValid());
    const QByteArray bytes("binary\0\x01\x02\x03", 10);
    EXPECT_TRUE(cache.writeCacheFile("warm", bytes));
    EXPECT_TRUE(cache.writeCacheFile("cold", "stale"));
    EXPECT_FALSE(cache.loadCacheFile("absent", data));

    // A later process sees both files but uses only one.
    ShaderCacheManager later;
    later.setCacheParentDirectory(QDir(parent.path()));
    ASSERT_TRUE(later.loadCacheFile("warm", data));
    EXPECT_EQ(data, bytes);
    MessageCapture capture;
    later.deleteUnmanagedCacheFiles();
    const QString folder = QDir(parent.path()).absoluteFilePath(kFolder);
    EXPECT_TRUE(QFile::exists(folder + "/warm"));
    EXPECT_FALSE(QFile::exists(folder + "/cold"));
    EXPECT_EQ(capture.texts(QtDebugMsg), QStringList{"Removing cold cache at " + folder + "/cold"});
}

TEST(ShaderCacheManager, ReadOnlyModeCreatesAndWritesNothing)
{
    QTemporaryDir parent;
    setenv("TARN_READ_ONLY", "1", 1);
    MessageCapture capture;
    ShaderCacheManager cache;
    cache.setCacheParentDirectory(QDir(parent.path()));
    QByteArray data;
    EXPECT_FALSE(cache.loadCacheFile("key", data));
    EXPECT_FALSE(cache.writeCacheFile("key", "bytes"));
    unsetenv("TARN_READ_ONLY");

    const QString folder = QDir(parent.path()).absoluteFilePath(kFolder);
    EXPECT_FALSE(cache.isValid());
    EXPECT_FALSE(QDir(folder).exists());
    EXPECT_EQ(capture.texts(QtDebugMsg),
              QStringList({"Cache directory set: " + folder,
                           "Can't create directory " + folder + ", because Tarn is in read-only mode.",
                           "A valid shader cache location has not been set.",
                           "Tarn is in read-only mode, so it will not attempt to write cache files."}));
}
