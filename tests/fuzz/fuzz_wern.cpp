// Wern text, split by syntax alone and decoded against a small repository.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_util.h"
#include "hgx.h"
#include "hgx_write.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::ensure_repository();
    static hgx_handle_t* handle = [] {
        hgx_handle_t* h = hgx_handle_create(HGX_VERSION);
        if (h == nullptr || hgx_handle_bind(h) != 0) __builtin_trap();
        return h;
    }();
    std::string wern(reinterpret_cast<const char*>(data), size);
    const char* text = wern.c_str();  // ends at the first NUL, as a C caller's

    hgx_wern_parts parts;
    hgx_wern_split(text, &parts);
    hgx_valid_name(wern);
    hgx_valid_service_name(wern);

    std::string copy(text);
    const char *scope, *scope_path, *service, *instance, *pg, *property, *snapshot;
    hgx_parse_wern(copy.data(), &scope, &scope_path, &service, &instance, &pg, &property,
                   &snapshot);

    // Made once with the handle, as a reader decodes into the same objects.
    static hgx_scope_t* s = hgx_scope_create(handle);
    static hgx_service_t* sv = hgx_service_create(handle);
    static hgx_instance_t* in = hgx_instance_create(handle);
    static hgx_propertygroup_t* g = hgx_pg_create(handle);
    static hgx_property_t* p = hgx_property_create(handle);
    for (int flags : {0, HGX_DECODE_INSTANCE_ONLY, HGX_DECODE_SERVICE_ONLY})
        hgx_handle_decode_wern(handle, text, s, sv, in, g, p, flags);
    return 0;
}
