// How a store or a space is opened.
#pragma once

namespace quna {

// What each mode does to a store: see CreateOrOpenLSS in qxLss/ILogStructuredStore.h.
enum EOpenMode {
    OM_CREATE_NEW = 0,
    OM_CREATE_ALWAYS = 1,
    OM_OPEN_EXISTING = 2,
    OM_OPEN_EXISTING_READ_ONLY = 3,
    OM_OPEN_EXISTING_SHARED_READ = 4,
    OM_OPEN_ALWAYS = 5,
    OM_DELETE_EXISTING = 6
};

} // namespace quna
