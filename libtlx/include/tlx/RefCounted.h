#pragma once
// Intrusive reference counting.
//
// Records, iterators, explorers and servants outlive the call that made them by an unknown time and
// are shared by threads that know nothing of each other, so the count lives in the object. An
// object is born with the one reference of its creator; whoever holds an AutoDereference holds one
// more.

#include <atomic>
#include <utility>

namespace Veltrane::Quillmark::Tlx {

/// Base of every shared object; always inherited virtually, so that an object has one count however
/// many bases brought it. All operations may be called from any thread.
class TLXRefCounted
{
  public:
    /// Takes one more reference.
    void referenceObject() const noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }

    /// Gives one reference back; the last one deletes the object.
    void dereferenceObject() const noexcept
    {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    /// The number of references now held: for tests and log lines, never for decisions.
    unsigned long referenceCount() const noexcept
    {
        return m_references.load(std::memory_order_relaxed);
    }

    TLXRefCounted(const TLXRefCounted&) noexcept : m_references(1) {}
    TLXRefCounted& operator=(const TLXRefCounted&) noexcept { return *this; }

  protected:
    TLXRefCounted() noexcept : m_references(1) {}
    virtual ~TLXRefCounted() = default;

  private:
    mutable std::atomic<unsigned long> m_references;
};

/// Holds one reference to a T and gives it back when it goes. Built from a pointer it *adopts* the
/// caller's reference; sharing an object that somebody else keeps is the named operation refObject.
/// One holder is used by one thread at a time; the object may be held from many.
template <class T>
class AutoDereference
{
  public:
    AutoDereference() noexcept = default;
    /// Adopts the caller's reference (null is allowed).
    explicit AutoDereference(T* adopted) noexcept : m_object(adopted) {}

    AutoDereference(const AutoDereference& other) noexcept : m_object(other.m_object)
    {
        if (m_object)
            m_object->referenceObject();
    }
    AutoDereference(AutoDereference&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr))
    {
    }
    template <class U>
    AutoDereference(const AutoDereference<U>& other) noexcept : m_object(other.get())
    {
        if (m_object)
            m_object->referenceObject();
    }
    ~AutoDereference() { reset(); }

    AutoDereference& operator=(AutoDereference other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }

    /// A holder with a reference of its own to an object that somebody else keeps.
    static AutoDereference share(T* object) noexcept
    {
        AutoDereference holder;
        holder.refObject(object);
        return holder;
    }

    /// Drops what is held and takes a new reference to object (null is allowed).
    void refObject(T* object) noexcept
    {
        if (object)
            object->referenceObject();
        reset(object);
    }

    /// Drops what is held and adopts the caller's reference.
    void reset(T* adopted = nullptr) noexcept
    {
        T* old = std::exchange(m_object, adopted);
        if (old)
            old->dereferenceObject();
    }

    /// Hands the held reference to the caller, who now has to give it back.
    [[nodiscard]] T* release() noexcept { return std::exchange(m_object, nullptr); }

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

  private:
    T* m_object = nullptr;
};

} // namespace Veltrane::Quillmark::Tlx
