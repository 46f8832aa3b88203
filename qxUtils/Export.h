// The one export mark of the library: everything else stays hidden in libqxPersistStore.
#pragma once

#define QX_API __attribute__((visibility("default")))
