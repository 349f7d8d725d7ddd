#pragma once

#include <QByteArray>
#include <QString>

#include <vector>

namespace VyxTest {

// Makes every GL context of this process a 3.2 core one without the extensions that newer
// code paths lean on, so the fallbacks run for real. Call before the first context is made.
void applyReducedProfile();
// Settings every test process shares (Qt's offscreen platform, no GPU probing).
void applyCommonEnvironment();
// The extensions the reduced profile removes.
const char* reducedProfileExtensionOverride();
// The extensions the driver will not drop, which the library is told to ignore instead.
const char* hiddenExtensions();

QString testDataPath(const QString& relative);
// A file of the test sources (tests/...).
QString testSourcePath(const QString& relative);
// The GL test program itself, for tests that run a helper process.
QString glTestProgram();
// A test data file's bytes; empty when it cannot be read.
QByteArray readTestData(const QString& relative);
// Writes `bytes` to `path` and returns the path.
QString writeFile(const QString& path, const QByteArray& bytes);

// The reference encoder's own RGBA8 decode of an .astc file, top row first unless asked;
// empty when the tool is not installed.
std::vector<unsigned char> referenceASTCDecode(const QString& astcPath, bool bottomRowFirst = false);

inline unsigned char* bytes(QByteArray& data) { return reinterpret_cast<unsigned char*>(data.data()); }
inline const unsigned char* bytes(const QByteArray& data) { return reinterpret_cast<const unsigned char*>(data.constData()); }

} // namespace VyxTest
