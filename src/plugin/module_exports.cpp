#include "plugin/module_exports.h"

#include "plugin/exported_objects.h"
#include "plugin/status.h"

int32_t QvCreateObject(const wchar_t* name, const GUID* iid, void** object) {
    if (!iid) {
        if (object) *object = nullptr;
        return qv::status::kNotFound;
    }
    return qv::ExportedObjectRegistry::Instance().CreateObject(name, *iid, object);
}

void QvDestroyObject(const wchar_t* name, void* object) {
    qv::ExportedObjectRegistry::Instance().DestroyObject(name, object);
}
