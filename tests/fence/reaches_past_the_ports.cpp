// Not part of any target: see Fence.KeepsPlatformHeadersOutOfKelvara.
#include <sqlite3.h>
