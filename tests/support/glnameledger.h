#pragma once

#include <QString>

#include <array>

namespace VyxTest {

// Counts the GL names made and deleted through the `_ptrc_` entry points while installed, so a
// test can check that every object it let the library make gave its name back. Buffers made by
// glCreateBuffers (4.5 runs) do not pass the loader; the 3.2 runs make them with glGenBuffers.
class GLNameLedger
{
public:
    enum Kind { Buffer, Texture, VertexArray, Framebuffer, Renderbuffer, Program, KindCount };
    static const char* kindName(Kind kind);

    // Swaps the entry points for counting shims; the destructor puts them back.
    GLNameLedger();
    ~GLNameLedger();
    GLNameLedger(const GLNameLedger&) = delete;
    GLNameLedger& operator=(const GLNameLedger&) = delete;

    // Names of each kind made since construction and not deleted. A delete with no context
    // current deletes nothing, so it does not count.
    std::array<int, KindCount> live() const;
};

// Names of the kind a test may leave behind on purpose (glnameallowlist.cpp).
int allowedLiveNames(const QString& test, GLNameLedger::Kind kind);

} // namespace VyxTest
