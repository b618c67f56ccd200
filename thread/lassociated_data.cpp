// Associated objects and the data wrapper.
#include "thread/lassociated_data.h"

#include <utility>

char const LAssociatedData::kDefaultKey = 0;

void LObject::SetAssociatedObject(void const* key, std::shared_ptr<LObject> value) {
    std::shared_ptr<LObject> old;  // released after the lock, in case it owns associations
    std::lock_guard guard(associationsMutex);
    auto found = associations.find(key);
    if (found != associations.end()) {
        old = std::move(found->second);
        if (value) {
            found->second = std::move(value);
        } else {
            associations.erase(found);
        }
    } else if (value) {
        associations.emplace(key, std::move(value));
    }
}

std::shared_ptr<LObject> LObject::GetAssociatedObject(void const* key) {
    std::lock_guard guard(associationsMutex);
    auto found = associations.find(key);
    return found != associations.end() ? found->second : nullptr;
}

void LAssociatedData::SetData(void* data, LObject* object, void const* key) {
    if (object == nullptr) {
        return;
    }
    object->SetAssociatedObject(key, std::make_shared<LAssociatedData>(data));
}

void* LAssociatedData::GetDataForObject(LObject* object, void const* key) {
    auto wrapper = std::dynamic_pointer_cast<LAssociatedData>(GetDataDirect(object, key));
    return wrapper ? wrapper->data : nullptr;
}

void LAssociatedData::SetDataDirect(std::shared_ptr<LObject> data, LObject* object,
                                    void const* key) {
    if (object == nullptr) {
        return;
    }
    object->SetAssociatedObject(key, std::move(data));
}

std::shared_ptr<LObject> LAssociatedData::GetDataDirect(LObject* object, void const* key) {
    return object != nullptr ? object->GetAssociatedObject(key) : nullptr;
}

void LAssociatedData::SetData(void* data, LObject* object) {
    SetData(data, object, &kDefaultKey);
}

void* LAssociatedData::GetDataForObject(LObject* object) {
    return GetDataForObject(object, &kDefaultKey);
}
