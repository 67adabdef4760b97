#include "module/module_exports.h"

#include "plugin/exported_objects.h"

int32_t QvCreateObject(const wchar_t* name, const GUID* iid, void** object) {
    return qv::ExportedObjectRegistry::Instance().CreateObject(name, iid, object);
}

void QvDestroyObject(const wchar_t* name, void* object) {
    qv::ExportedObjectRegistry::Instance().DestroyObject(name, object);
}
