#pragma once
// Intrusive reference counting.
//
// Records, iterators, explorers and servants live longer than the call that made them. Threads
// share them without knowing each other, so the object itself has the count. A new object has one
// reference, its creator's. Each AutoDereference holds one more.

#include <atomic>
#include <utility>

namespace Veltrane::Quillmark::Tlx {

/// Base of every shared object. Classes inherit it virtually, so that an object with several such
/// bases has one count. Any thread may call all operations.
class TLXRefCounted
{
  public:
    /// Takes one more reference.
    void referenceObject() const noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }

    /// Releases one reference. Releasing the last one deletes the object.
    void dereferenceObject() const noexcept
    {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    /// The current number of references. Only tests use it.
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

/// Holds one reference to a T and releases it at its end. A holder built from a pointer *adopts*
/// the caller's reference. To share an object that another holder keeps, use refObject. One thread
/// at a time uses a holder; many threads may hold the same object.
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

    /// A holder with a new reference to an object that another holder keeps.
    static AutoDereference share(T* object) noexcept
    {
        AutoDereference holder;
        holder.refObject(object);
        return holder;
    }

    /// Releases the held reference and takes a new one to object (null is allowed).
    void refObject(T* object) noexcept
    {
        if (object)
            object->referenceObject();
        reset(object);
    }

    /// Releases the held reference and adopts the caller's.
    void reset(T* adopted = nullptr) noexcept
    {
        T* old = std::exchange(m_object, adopted);
        if (old)
            old->dereferenceObject();
    }

    /// Gives the held reference to the caller, who must release it.
    [[nodiscard]] T* release() noexcept { return std::exchange(m_object, nullptr); }

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

  private:
    T* m_object = nullptr;
};

} // namespace Veltrane::Quillmark::Tlx
