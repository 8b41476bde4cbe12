// Owners for libhgx objects: HgxPtr<T> is a std::unique_ptr that releases
// the object with the destroy function of its kind (hgx_writer_close for a
// writer, hgx_status_key_close for a host's status key), so that every exit
// of a caller releases what it created.
//
//   HgxPtr<hgx_handle_t> handle(hgx_handle_create(HGX_VERSION));
//   HgxPtr<hgx_iter_t> iter(hgx_iter_create(handle.get()));
//
// An owner holding null releases nothing, as every *_destroy accepts null.
// Objects hold no reference to their handle that keeps it alive: an owner
// of a handle must outlive the owners of the objects made for it, which
// declaring the handle's owner first gives.
#pragma once

#include <memory>

#include "hgx.h"
#include "hgx_write.h"

struct HgxDeleter {
    void operator()(hgx_handle_t* p) const { hgx_handle_destroy(p); }
    void operator()(hgx_scope_t* p) const { hgx_scope_destroy(p); }
    void operator()(hgx_service_t* p) const { hgx_service_destroy(p); }
    void operator()(hgx_instance_t* p) const { hgx_instance_destroy(p); }
    void operator()(hgx_snapshot_t* p) const { hgx_snapshot_destroy(p); }
    void operator()(hgx_propertygroup_t* p) const { hgx_pg_destroy(p); }
    void operator()(hgx_property_t* p) const { hgx_property_destroy(p); }
    void operator()(hgx_value_t* p) const { hgx_value_destroy(p); }
    void operator()(hgx_iter_t* p) const { hgx_iter_destroy(p); }
    void operator()(hgx_writer_t* p) const { hgx_writer_close(p); }
    void operator()(hgx_status_key_t* p) const { hgx_status_key_close(p); }
};

template <typename T>
using HgxPtr = std::unique_ptr<T, HgxDeleter>;
