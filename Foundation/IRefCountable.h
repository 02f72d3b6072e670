#pragma once

namespace Halvex {

/// An object that counts its owners and deletes itself when the last one lets go.
///
/// Thread-safe counting: owners may come and go on any thread. Held as a boost::intrusive_ptr.
class IRefCountable {
public:
    virtual ~IRefCountable() = default;

    /// One more owner.
    virtual void AddRef() = 0;
    /// One owner less; the last one deletes the object.
    virtual void Release() = 0;
};

/// How boost::intrusive_ptr takes and gives back its share.
inline void intrusive_ptr_add_ref(IRefCountable* object) {
    object->AddRef();
}
inline void intrusive_ptr_release(IRefCountable* object) {
    object->Release();
}

} // namespace Halvex
