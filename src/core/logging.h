#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QString>

// Printf-style logging in the library's one line form "[file:line] text",
// and the assertion helper that reports a failed condition without aborting.

namespace Tavren::Vyx {

enum class LogLevel { Debug, Warning, Critical };

// Prints "[<base name of file>:<line>] <text>" at the given level; text is a printf format.
VYXGL_EXPORT void logMessage(LogLevel level, const char* file, int line, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

// Prints "[ !! ] Assertion '<condition>' failed: <message>" at critical level when
// `condition` is false, and returns `condition` so callers can bail out with their failure value.
VYXGL_EXPORT bool checkAssertion(bool condition, const char* conditionText, const char* file, int line,
                                 const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

// The file name after its last '/'.
VYXGL_EXPORT const char* sourceBaseName(const char* file);

// A file or data name as log lines print it: "<unnamed>" for an empty one.
VYXGL_EXPORT QByteArray printableName(const QString& name);

} // namespace Tavren::Vyx

#define VYX_DEBUG(...) ::Tavren::Vyx::logMessage(::Tavren::Vyx::LogLevel::Debug, __FILE__, __LINE__, __VA_ARGS__)
#define VYX_WARNING(...) ::Tavren::Vyx::logMessage(::Tavren::Vyx::LogLevel::Warning, __FILE__, __LINE__, __VA_ARGS__)
#define VYX_CRITICAL(...) ::Tavren::Vyx::logMessage(::Tavren::Vyx::LogLevel::Critical, __FILE__, __LINE__, __VA_ARGS__)

// Evaluates to the condition; prints the assertion line when it is false. A check that holds
// costs a test and no call: checks sit on every bind.
//   if (!VYX_CHECK(_bo != 0, "Buffer object not created")) return false;
#define VYX_CHECK(condition, ...) \
    (static_cast<bool>(condition) \
     || ::Tavren::Vyx::checkAssertion(false, #condition, __FILE__, __LINE__, __VA_ARGS__))

// Reports and returns `failureValue` from the enclosing function when the condition is false
// (leave `failureValue` empty in a function returning void). Like VYX_CHECK, a check that holds
// makes no call. (Both forms stringify the condition themselves: passed on to VYX_CHECK, macros in
// it such as NULL or GL_TEXTURE_2D would be printed expanded.)
#define VYX_CHECK_RETURN(condition, failureValue, ...) \
    do { \
        if (!static_cast<bool>(condition)) { \
            ::Tavren::Vyx::checkAssertion(false, #condition, __FILE__, __LINE__, __VA_ARGS__); \
            return failureValue; \
        } \
    } while (false)

// For the checks whose operation prints and then goes on regardless: a statement of its own, so
// it cannot be mistaken for a forgotten return.
#define VYX_CHECK_CONTINUE(condition, ...) \
    do { \
        if (!static_cast<bool>(condition)) \
            ::Tavren::Vyx::checkAssertion(false, #condition, __FILE__, __LINE__, __VA_ARGS__); \
    } while (false)

// As VYX_CHECK, but reports `conditionText` instead of the expression evaluated, for checks whose
// printed condition differs from the code (an object that may be missing altogether).
#define VYX_CHECK_AS(condition, conditionText, ...) \
    (static_cast<bool>(condition) \
     || ::Tavren::Vyx::checkAssertion(false, conditionText, __FILE__, __LINE__, __VA_ARGS__))
