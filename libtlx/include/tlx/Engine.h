#pragma once
// Objects that exist once during a piece of work.
//
// A piece of work, for instance the start-up, opens an EngineContext and asks it for the objects
// that it needs once. Closing the context deletes its objects, the last one made first.

#include <memory>
#include <mutex>
#include <typeindex>
#include <utility>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// Base of the objects that a context keeps, one of each kind. A kind T has
/// `static T* instance(const EngineContext&)`, which makes an object for the context to own.
class EngineSingleton
{
  public:
    EngineSingleton() = default;
    EngineSingleton(const EngineSingleton&) = delete;
    EngineSingleton& operator=(const EngineSingleton&) = delete;
    virtual ~EngineSingleton() = default;
    /// The context calls it before it deletes the object. The base does nothing.
    virtual void closeObject();
};

/// Owns the objects of one piece of work. Any thread may use it until close is called.
class EngineContext
{
  public:
    /// @param open whether objects may be made. A context that is made closed stays closed.
    explicit EngineContext(bool open);
    EngineContext(const EngineContext&) = delete;
    EngineContext& operator=(const EngineContext&) = delete;
    /// Closes it.
    ~EngineContext();

    /// Deletes every object, in the reverse order of their making. A second call does nothing.
    void close();

  private:
    template <class T>
    friend T* getEngineSingleton(const EngineContext& context);

    using Make = EngineSingleton* (*)(const EngineContext&);
    EngineSingleton* find(std::type_index kind, Make make) const;

    // Recursive, because the constructor of an object may ask for another object.
    mutable std::recursive_mutex m_mutex;
    bool m_open;
    mutable std::vector<std::pair<std::type_index, std::unique_ptr<EngineSingleton>>> m_objects;
};

/// The context's object of a kind. The first call makes it, and the context owns it. Null when the
/// context is closed.
template <class T>
T* getEngineSingleton(const EngineContext& context)
{
    return static_cast<T*>(context.find(
        typeid(T), [](const EngineContext& of) -> EngineSingleton* { return T::instance(of); }));
}

} // namespace Veltrane::Quillmark::Tlx
