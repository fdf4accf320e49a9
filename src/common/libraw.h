// LibRaw's C interface. Its header carries its C++ classes too, and one of
// their inline functions throws when its pool check is on. The library is
// built without exceptions and uses only the C interface, which the check
// does not touch.
#pragma once

#ifndef LIBRAW_NO_MEMPOOL_CHECK
#define LIBRAW_NO_MEMPOOL_CHECK
#endif
#include <libraw/libraw.h>

// A LibRaw handle whose data and memory error reports go nowhere: LibRaw
// would otherwise print "unexpected end of file" and the like to stderr,
// and the library prints nothing. Null when LibRaw has no memory.
libraw_data_t *image_libraw_init();
