#pragma once

#include "core/vyxexport.h"

#include <QSharedPointer>

namespace Tavren::Vyx {

// Anything that can be bound to and unbound from the current GL context.
// bind() and unbind() return true when they carried the operation out.
class VYXGL_EXPORT Bindable
{
public:
    virtual ~Bindable();
    virtual bool bind() = 0;
    virtual bool unbind() = 0;
};

// Binds an object for the length of a scope; unbinds only what it bound.
class VYXGL_EXPORT AutoBinder
{
public:
    explicit AutoBinder(Bindable* object);
    // Does not keep the object alive: the caller's pointer must outlive the guard.
    explicit AutoBinder(const QSharedPointer<Bindable>& object);
    ~AutoBinder();

    AutoBinder(const AutoBinder&) = delete;
    AutoBinder& operator=(const AutoBinder&) = delete;

    bool isBound() const { return _bound; }

private:
    Bindable* _object;
    bool _bound;
};

// Enables a GL capability for the length of a scope, then restores the state it found.
class VYXGL_EXPORT AutoEnabler
{
public:
    explicit AutoEnabler(unsigned int capability);
    ~AutoEnabler();

private:
    bool _wasEnabled;
    unsigned int _capability;
};

// Disables a GL capability for the length of a scope, then restores the state it found.
class VYXGL_EXPORT AutoDisabler
{
public:
    explicit AutoDisabler(unsigned int capability);
    ~AutoDisabler();

private:
    bool _wasEnabled;
    unsigned int _capability;
};

} // namespace Tavren::Vyx
