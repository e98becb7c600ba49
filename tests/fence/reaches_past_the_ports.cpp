// Part of no target. Fence.KeepsPlatformHeadersOutOfKelvara compiles it.
#include <sqlite3.h>
