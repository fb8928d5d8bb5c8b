#pragma once
// Objects that exist once for the length of a piece of work.
//
// A piece of work (the start-up, say) opens an EngineContext; what it needs once, it asks the
// context for. When the context is closed, its objects go, the last one made first.

#include <memory>
#include <mutex>
#include <typeindex>
#include <utility>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// Base of the objects that a context keeps, one of a kind. A kind T has
/// `static T* instance(const EngineContext&)`, which makes a new one and gives it to the context.
class EngineSingleton
{
  public:
    EngineSingleton() = default;
    EngineSingleton(const EngineSingleton&) = delete;
    EngineSingleton& operator=(const EngineSingleton&) = delete;
    virtual ~EngineSingleton() = default;
    /// The context is being closed; the object is deleted next. The base does nothing.
    virtual void closeObject();
};

/// Keeps the objects of one piece of work. Any thread, but none may use it once close was called.
class EngineContext
{
  public:
    /// @param open whether objects may be made; a context made closed stays so.
    explicit EngineContext(bool open);
    EngineContext(const EngineContext&) = delete;
    EngineContext& operator=(const EngineContext&) = delete;
    /// Closes it.
    ~EngineContext();

    /// Lets go of every object, in the reverse order of their making. Calling it again does
    /// nothing.
    void close();

  private:
    template <class T>
    friend T* getEngineSingleton(const EngineContext& context);

    using Make = EngineSingleton* (*)(const EngineContext&);
    EngineSingleton* find(std::type_index kind, Make make) const;

    mutable std::recursive_mutex m_mutex; // an object may ask for another while it is made
    bool m_open;
    mutable std::vector<std::pair<std::type_index, std::unique_ptr<EngineSingleton>>> m_objects;
};

/// The context's object of a kind, made on first use; null when the context is closed. The context
/// owns it.
template <class T>
T* getEngineSingleton(const EngineContext& context)
{
    return static_cast<T*>(context.find(
        typeid(T), [](const EngineContext& of) -> EngineSingleton* { return T::instance(of); }));
}

} // namespace Veltrane::Quillmark::Tlx
