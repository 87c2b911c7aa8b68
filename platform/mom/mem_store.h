// The embedded store: records kept in this process. "mem:NAME" names one
// store instance; every connection opened on the same name shares its
// records and its change notifications, so a publisher handle and an
// application handle in one process see each other. An instance lives while
// any connection to it is open.
#ifndef QZ_MOM_IMPL_MEM_STORE_H
#define QZ_MOM_IMPL_MEM_STORE_H

#include <memory>
#include <string_view>

#include "store.h"

namespace qzmom {

// Opens a connection to the embedded store instance `name` ("" is the
// default instance, URI "mem:").
std::unique_ptr<Store> open_mem_store(std::string_view name, StoreListener *listener);

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_MEM_STORE_H
