// The functions of both headers, for programs that do not have them inline.
#define KVUTIL_CRITSEC_INLINE
#include <kvutil/critsec.h>
