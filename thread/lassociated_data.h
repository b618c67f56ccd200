// LObject is the C++ counterpart of the platform's root object class for the few classes that
// bridge work to the main thread: reference counted through std::shared_ptr (retain and
// release), able to carry associated objects under keys. An association holds a strong
// reference and goes with its object.
//
// LAssociatedData attaches data to an object: either a raw pointer wrapped in a new
// LAssociatedData (the owner of the pointer stays responsible for it), or an object directly.
// Keys are addresses, compared by identity.
#pragma once

#include <map>
#include <memory>
#include <mutex>

class LObject : public std::enable_shared_from_this<LObject> {
public:
    LObject() = default;
    virtual ~LObject() = default;
    LObject(LObject const&) = delete;
    LObject& operator=(LObject const&) = delete;

    // The association under key (null removes it); the retaining, non-atomic association.
    void SetAssociatedObject(void const* key, std::shared_ptr<LObject> value);
    std::shared_ptr<LObject> GetAssociatedObject(void const* key);

private:
    std::mutex associationsMutex;
    std::map<void const*, std::shared_ptr<LObject>> associations;
};

class LAssociatedData : public LObject {
public:
    explicit LAssociatedData(void* data) : data(data) {}
    void* GetData() const { return data; }

    // Wraps data in a new LAssociatedData and attaches it to object under key; a null object
    // does nothing.
    static void SetData(void* data, LObject* object, void const* key);
    // The wrapped data, or null when nothing (or no wrapper) is attached under key.
    static void* GetDataForObject(LObject* object, void const* key);
    // The same without the wrapper: the object itself is attached.
    static void SetDataDirect(std::shared_ptr<LObject> data, LObject* object, void const* key);
    static std::shared_ptr<LObject> GetDataDirect(LObject* object, void const* key);
    // With the class's own default key.
    static void SetData(void* data, LObject* object);
    static void* GetDataForObject(LObject* object);

private:
    static char const kDefaultKey;
    void* data;
};
