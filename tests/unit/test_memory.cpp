#include "core/memory.h"
#include "core/resourcespath.h"
#include "support/testenvironment.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>

using namespace Tavren::Vyx;

TEST(Memory, RawMemoryRefusesRangesPastTheEnd)
{
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    RawMemory memory(bytes, sizeof bytes);
    EXPECT_EQ(memory.size(), 8u);
    EXPECT_EQ(memory.get(0, 8), bytes);
    EXPECT_EQ(memory.get(8, 0), bytes + 8);
    EXPECT_EQ(memory.get(7, 2), nullptr);
    EXPECT_EQ(memory.get(9, 0), nullptr);
    // Offset plus length must not wrap around.
    EXPECT_EQ(memory.get(4, UINT64_MAX - 2), nullptr);
    EXPECT_EQ(memory.get(UINT64_MAX, 2), nullptr);
}

TEST(Memory, MappedFileIsPrivateCopyOnWrite)
{
    QTemporaryDir dir;
    const QString path = VyxTest::writeFile(dir.filePath("data.bin"), "ABCDEFGH");
    {
        MemoryMappedFile mapped(path);
        ASSERT_TRUE(mapped.isOpen());
        EXPECT_EQ(mapped.size(), 8u);
        unsigned char* header = mapped.get(0, 4);
        ASSERT_NE(header, nullptr);
        header[0] = 'Z';
        EXPECT_EQ(mapped.get(0, 1)[0], 'Z');
        mapped.release(header);
        EXPECT_EQ(mapped.get(5, 4), nullptr);
    }
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly) && file.readAll() == "ABCDEFGH");
}

TEST(Memory, MappedFileOfMissingOrEmptyFile)
{
    QTemporaryDir dir;
    MemoryMappedFile missing(dir.filePath("absent"));
    EXPECT_FALSE(missing.isOpen());
    EXPECT_EQ(missing.size(), 0u);
    EXPECT_EQ(missing.get(0, 1), nullptr);

    QFile(dir.filePath("empty")).open(QIODevice::WriteOnly);
    MemoryMappedFile empty(dir.filePath("empty"));
    EXPECT_TRUE(empty.isOpen());
    EXPECT_EQ(empty.get(0, 1), nullptr);

    MemoryMappedFile directory(dir.path());
    EXPECT_FALSE(directory.isOpen());
}

TEST(ResourcesPath, DefaultsToProgramFolderAndCanBeSet)
{
    int argc = 1;
    char name[] = "vyx_unit_tests";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    EXPECT_EQ(resourcesPath(), QCoreApplication::applicationDirPath());
    setResourcesPath("/somewhere/else");
    setResourcesPath(QString());
    EXPECT_EQ(resourcesPath(), QCoreApplication::applicationDirPath());
}
